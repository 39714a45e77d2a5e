#pragma once
// The timeout of the current read or write.

#include <QBasicTimer>
#include <QObject>

//! A clock that starts when a request becomes the current one, and one timer
//! for all the requests of a queue. The timer is re-armed only when the
//! current request expires sooner than it would fire; a timer that fires
//! early (for a request that has since completed) finds a later deadline and
//! is armed again. Times are steady-clock nanoseconds.
class AsyncSocketDeadline
{
public:
    //! Starts the clock; a negative timeout is none.
    void start(double timeoutSeconds);
    //! The current request is done: the next one starts its own clock.
    void reset() { m_started = false; }
    bool started() const { return m_started; }
    //! Arms the timer (events go to `receiver`) unless it fires soon enough already.
    void arm(QObject *receiver);
    //! Stops the timer; the clock keeps running.
    void pause() { m_timer.stop(); }
    //! Stops everything and forgets the clock.
    void clear()
    {
        m_timer.stop();
        m_started = false;
        m_start = 0;
        m_deadline = -1;
        m_armedFor = -1;
    }
    bool owns(int timerId) const { return m_timer.timerId() == timerId; }
    //! The timer fired: it stays off until armed again.
    void fired()
    {
        m_timer.stop();
        m_armedFor = -1;
    }
    //! Whether a started clock has a deadline that has passed at `now`.
    bool runs() const { return m_started && m_deadline >= 0; }
    bool expired(qint64 now) const { return now >= m_deadline; }
    //! Seconds since the clock started.
    double elapsed(qint64 now) const { return double(now - m_start) / 1e9; }
    //! Moves the deadline to `seconds` from now and arms the timer.
    void extend(double seconds, QObject *receiver);

    static qint64 now();

private:
    QBasicTimer m_timer;
    bool m_started = false;
    qint64 m_start = 0;
    qint64 m_deadline = -1; // -1: no timeout
    qint64 m_armedFor = -1; // the deadline the timer is running for
};

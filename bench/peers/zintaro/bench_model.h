#pragma once
// The model both sides of the Zintaro link benchmark share: one counter with
// an integer property. BenchCounter plays the abstract model class (it
// declares the calls a client forwards); each process has its concrete class.

#include "core/ztagenthost.h"
#include "core/ztclientnode.h"

class BenchCounter : public ZTAbstractIPC
{
    ZT_OBJECT(BenchCounter, ZTAbstractIPC)
public:
    qint64 value() const { return m_value; }
    void setValue(qint64 v) { setAndNotify(m_value, v, QStringLiteral("value")); }

    //! Sets the value `count` times, `batch` changes per turn of the event loop.
    void produceChangesBatch(qint64 count, qint64 batch);
    //! Answers its argument: a call that returns a value.
    QVariant echo(const QVariant &value) const { return value; }
    //! The CPU time this process has used, in seconds.
    QVariant cpuSeconds() const;

    QVariantMap dictionary() const override;

private:
    qint64 m_value = 0;
};

class AgentCounter : public BenchCounter
{
    ZT_OBJECT(AgentCounter, BenchCounter)
};

class ClientCounter : public BenchCounter
{
    ZT_OBJECT(ClientCounter, BenchCounter)
};

#pragma once
// AsyncSocket: a TCP socket driven by the event loop of the thread that owns
// it. It listens or connects (IPv4 and IPv6), keeps a queue of reads and a
// queue of writes, serves each queue strictly in order, and tells its
// delegate of every completion, partial progress, timeout and disconnection.
// No call blocks; no delegate method is called from inside a call made on the
// socket (requests made outside a callback are served from the event loop).
//
// Threads: the socket, its delegate calls and its timers belong to the thread
// it was made on, or moved to with moveToRunLoop(); it is not thread-safe.
//
// Life cycle: a reference-counted object (make it with create...). While a
// disconnectAfter... variant waits for its queues to drain the socket keeps
// itself alive, so an owner may release it right after asking.
//
// Errors carry the domain "AsyncSocketErrorDomain" (codes below) or the
// domain of the failing layer ("NSPOSIXErrorDomain", "kCFStreamErrorDomain…").
// On an error the delegate hears onSocketWillDisconnectWithError (unreadData()
// still answers), then the socket closes, empties both queues and sends
// onSocketDidDisconnect. A peer that closes the stream is reported the same
// way with a null error (Error::isNull()).

#include "runtime/error.h"
#include "runtime/object.h"
#include "transport/asyncsocket_packets.h"
#include "zt_export.h"

#include <QHostAddress>
#include <QStringList>
#include <QVariant>
#include <memory>
#include <sys/socket.h>

class QThread;
class AsyncSocket;
class AsyncSocketPrivate;

//! The domain of the socket's own errors.
inline constexpr char16_t AsyncSocketErrorDomain[] = u"AsyncSocketErrorDomain";
//! The name of the exception raised on misuse.
inline constexpr char16_t AsyncSocketException[] = u"AsyncSocketException";

enum AsyncSocketError : qint64
{
    AsyncSocketCFSocketError = -1, //!< the native socket could not be set up
    AsyncSocketNoError = 0,
    AsyncSocketCanceledError = 1,       //!< the delegate refused the connection
    AsyncSocketConnectTimeoutError = 2, //!< connect timed out
    AsyncSocketReadMaxedOutError = 3,   //!< a terminator read reached its maximum length
    AsyncSocketReadTimeoutError = 4,
    AsyncSocketWriteTimeoutError = 5,
};

//! Keys of the settings dictionary given to startTLS(). Absent keys take the
//! default shown.
namespace AsyncSocketTLS {
//! bool: act as the TLS server. Default: true for an accepted socket, false otherwise.
inline constexpr char16_t IsServer[] = u"IsServer";
//! string: the host name the peer's certificate must name. Default: the host
//! given to connectToHost (none for an address). Empty: the name is not checked.
inline constexpr char16_t PeerName[] = u"PeerName";
//! bool: verify the peer's certificate chain. Default: true for a client,
//! false for a server (which then does not ask for a client certificate).
inline constexpr char16_t ValidatesCertificateChain[] = u"ValidatesCertificateChain";
//! bytes (PEM): the local certificate followed by the rest of its chain.
inline constexpr char16_t Certificates[] = u"Certificates";
//! bytes (PEM): the private key of the local certificate.
inline constexpr char16_t PrivateKey[] = u"PrivateKey";
//! bytes: the pass phrase of an encrypted private key.
inline constexpr char16_t PrivateKeyPassphrase[] = u"PrivateKeyPassphrase";
//! bytes (PEM): certificates to trust in addition to the system's.
inline constexpr char16_t CACertificates[] = u"CACertificates";
//! QSslConfiguration: the configuration the keys above are applied to.
//! Default: QSslConfiguration::defaultConfiguration().
inline constexpr char16_t Configuration[] = u"Configuration";
} // namespace AsyncSocketTLS

//! The socket's events. Every method is optional: its default behaves as a
//! delegate that does not implement it (notifications do nothing, the
//! timeout questions let the timeout expire, the run-loop question keeps the
//! listener's thread, onSocketWillConnect lets the connection go on). The
//! first argument is always the socket that reports.
class ZT_EXPORT AsyncSocketDelegate
{
public:
    virtual ~AsyncSocketDelegate();

    //! An error (or the peer's close, with a null error) is about to close the
    //! socket; unreadData() still answers.
    //! @sel onSocket:willDisconnectWithError:
    virtual void onSocketWillDisconnectWithError(AsyncSocket *sock, const zt::Error &error);
    //! The socket has closed and emptied its queues; it may be reused.
    //! @sel onSocketDidDisconnect:
    virtual void onSocketDidDisconnect(AsyncSocket *sock);
    //! A listener accepted a connection. `newSocket` has this delegate and
    //! lives only as long as someone keeps a reference (zt::Ref) to it.
    //! @sel onSocket:didAcceptNewSocket:
    virtual void onSocketDidAcceptNewSocket(AsyncSocket *sock, AsyncSocket *newSocket);
    //! The thread whose event loop is to run `newSocket`; null keeps the listener's.
    //! @sel onSocket:wantsRunLoopForNewSocket:
    virtual QThread *onSocketWantsRunLoopForNewSocket(AsyncSocket *sock, AsyncSocket *newSocket);
    //! The connection is about to open; false cancels it (AsyncSocketCanceledError).
    //! @sel onSocketWillConnect:
    virtual bool onSocketWillConnect(AsyncSocket *sock);
    //! @sel onSocket:didConnectToHost:port:
    virtual void onSocketDidConnectToHostPort(AsyncSocket *sock, const QString &host, quint16 port);
    //! @sel onSocket:didReadData:withTag:
    virtual void onSocketDidReadDataWithTag(AsyncSocket *sock, const QByteArray &data, long tag);
    //! Bytes added to the current read, which is not complete yet.
    //! @sel onSocket:didReadPartialDataOfLength:tag:
    virtual void onSocketDidReadPartialDataOfLengthTag(AsyncSocket *sock, qsizetype partialLength, long tag);
    //! @sel onSocket:didWriteDataWithTag:
    virtual void onSocketDidWriteDataWithTag(AsyncSocket *sock, long tag);
    //! Bytes of the current write taken by the stream; the write is not complete yet.
    //! @sel onSocket:didWritePartialDataOfLength:tag:
    virtual void onSocketDidWritePartialDataOfLengthTag(AsyncSocket *sock, qsizetype partialLength, long tag);
    //! The current read timed out; answer seconds to extend it by, or zero or
    //! less to let it fail. `elapsed` counts from the start of the read.
    //! @sel onSocket:shouldTimeoutReadWithTag:elapsed:bytesDone:
    virtual double onSocketShouldTimeoutReadWithTagElapsedBytesDone(AsyncSocket *sock, long tag,
                                                                    double elapsed, qsizetype bytesDone);
    //! @sel onSocket:shouldTimeoutWriteWithTag:elapsed:bytesDone:
    virtual double onSocketShouldTimeoutWriteWithTagElapsedBytesDone(AsyncSocket *sock, long tag,
                                                                     double elapsed, qsizetype bytesDone);
    //! The TLS handshake of startTLS() has completed.
    //! @sel onSocketDidSecure:
    virtual void onSocketDidSecure(AsyncSocket *sock);
};

class ZT_EXPORT AsyncSocket : public zt::Object
{
    ZT_OBJECT(AsyncSocket, zt::Object)
public:
    //! The run-loop mode a new socket is scheduled in.
    static const QString DefaultRunLoopMode; // "kCFRunLoopDefaultMode"

    //! Prefer the factories; a socket is reference counted.
    AsyncSocket();
    AsyncSocket(AsyncSocketDelegate *delegate, QVariant userData);
    ~AsyncSocket() override;

    //! @sel init
    static zt::Ref<AsyncSocket> create();
    //! @sel initWithDelegate:userData:
    static zt::Ref<AsyncSocket> createWithDelegate(AsyncSocketDelegate *delegate, QVariant userData = {});

    // ---- set-up ----
    //! The delegate is not owned; clear it before it goes away.
    AsyncSocketDelegate *delegate() const;
    void setDelegate(AsyncSocketDelegate *delegate);
    QVariant userData() const;
    void setUserData(const QVariant &userData);

    //! Run-loop modes are kept and answered for code that manages them; the
    //! event loop has no modes, so events are delivered in every one. An
    //! empty set is refused (false).
    //! @sel setRunLoopModes:
    bool setRunLoopModes(const QStringList &modes);
    //! @sel addRunLoopMode:
    bool addRunLoopMode(const QString &mode);
    //! Refused (false) for the last mode.
    //! @sel removeRunLoopMode:
    bool removeRunLoopMode(const QString &mode);
    QStringList runLoopModes() const;
    //! Moves the socket (its stream, timers and delegate calls) to the event
    //! loop of `thread`. Must be called on the socket's current thread, which
    //! then no longer touches it; false for a null thread or a wrong caller.
    //! @sel moveToRunLoop:
    bool moveToRunLoop(QThread *thread);
    //! Terminator reads then take bytes from the stream in chunks and keep
    //! back what follows the terminator; fewer steps, but the bytes taken in
    //! advance are no longer in the stream (don't switch to TLS after them).
    void enablePreBuffering();
    //! Reads are then served from a buffer of the socket's own, which takes
    //! everything the stream holds in one call whenever it runs dry, instead
    //! of one call to the stream per read: a stream of small frames costs a
    //! memory copy per read. Terminator reads take their bytes in chunks as
    //! with pre-buffering. The bytes read ahead are part of unreadData().
    //! They are no longer in the stream, so a TLS handshake behind them would
    //! be lost: a socket that reads ahead refuses startTLS() (it raises
    //! AsyncSocketException), and this call raises while a switch to TLS is
    //! queued or under way. After the switch (onSocketDidSecure) it is safe.
    void enableReadAhead();
    //! Asks the kernel for a send buffer of `bytes` on the stream, now if it
    //! is open and on every stream the socket opens later (0, the start: the
    //! system's own, sized as it sees fit). A burst of writes made between two
    //! turns of the event loop then goes to the kernel at once instead of
    //! waiting in the write queue for the peer to read. The kernel keeps the
    //! memory only while it holds unsent bytes.
    void setSendBufferSize(qint64 bytes);
    qint64 sendBufferSize() const;

    //! Process-wide: the application is terminating. Closing sockets then
    //! tell their delegates nothing, and the disconnectAfter... variants close
    //! at once instead of waiting for their queues.
    static void setIsTerminating(bool terminating);
    static bool isTerminating();

    // ---- accept and connect ----
    //! Listens on every interface, IPv4 and IPv6; port 0 picks one (see localPort()).
    //! Raises AsyncSocketException without a delegate or when not disconnected.
    //! @sel acceptOnPort:error:
    bool acceptOnPortError(quint16 port, zt::Error *error = nullptr);
    //! `interface`: empty for all, "localhost" or "loopback", an address (IPv4
    //! or IPv6), or an interface name ("lo", "eth0"): its first IPv4 and first
    //! IPv6 address. Set-up failures answer AsyncSocketCFSocketError with the
    //! reason under "NSLocalizedFailureReason".
    //! @sel acceptOnInterface:port:error:
    bool acceptOnInterfacePortError(const QString &interface, quint16 port, zt::Error *error = nullptr);
    //! Starts connecting; errors met later reach the delegate. A negative
    //! timeout waits indefinitely. Raises AsyncSocketException without a
    //! delegate or when not disconnected.
    //! @sel connectToHost:onPort:error:
    bool connectToHostOnPortError(const QString &host, quint16 port, zt::Error *error = nullptr);
    //! @sel connectToHost:onPort:withTimeout:error:
    bool connectToHostOnPortWithTimeoutError(const QString &host, quint16 port, double timeout,
                                             zt::Error *error = nullptr);
    //! `remoteAddr`: the bytes of a sockaddr_in or sockaddr_in6.
    //! @sel connectToAddress:error:
    bool connectToAddressError(const QByteArray &remoteAddr, zt::Error *error = nullptr);
    //! @sel connectToAddress:withTimeout:error:
    bool connectToAddressWithTimeoutError(const QByteArray &remoteAddr, double timeout,
                                          zt::Error *error = nullptr);

    // ---- reads ----
    // Each read is queued and completes with onSocketDidReadDataWithTag. A
    // negative timeout waits indefinitely. A caller's buffer (shared with the
    // socket until the read ends) is filled from `offset`, which must not
    // exceed its length; the data handed to the delegate is a copy of the
    // range read. A maximum length of 0 is no limit.

    //! Whatever is available (at least one byte).
    //! @sel readDataWithTimeout:tag:
    void readDataWithTimeoutTag(double timeout, long tag);
    //! @sel readDataWithTimeout:buffer:bufferOffset:tag:
    void readDataWithTimeoutBufferBufferOffsetTag(double timeout, std::shared_ptr<QByteArray> buffer,
                                                  qsizetype offset, long tag);
    //! @sel readDataWithTimeout:buffer:bufferOffset:maxLength:tag:
    void readDataWithTimeoutBufferBufferOffsetMaxLengthTag(double timeout, std::shared_ptr<QByteArray> buffer,
                                                           qsizetype offset, qsizetype maxLength, long tag);
    //! Exactly `length` bytes (0 completes at once, in queue order, with no data).
    //! @sel readDataToLength:withTimeout:tag:
    void readDataToLengthWithTimeoutTag(qsizetype length, double timeout, long tag);
    //! @sel readDataToLength:withTimeout:buffer:bufferOffset:tag:
    void readDataToLengthWithTimeoutBufferBufferOffsetTag(qsizetype length, double timeout,
                                                          std::shared_ptr<QByteArray> buffer,
                                                          qsizetype offset, long tag);
    //! Up to and including the terminator (not empty). With a maximum length
    //! (at least the terminator's), reaching it without the terminator fails
    //! with AsyncSocketReadMaxedOutError.
    //! @sel readDataToData:withTimeout:tag:
    void readDataToDataWithTimeoutTag(const QByteArray &terminator, double timeout, long tag);
    //! @sel readDataToData:withTimeout:maxLength:tag:
    void readDataToDataWithTimeoutMaxLengthTag(const QByteArray &terminator, double timeout,
                                               qsizetype maxLength, long tag);
    //! @sel readDataToData:withTimeout:buffer:bufferOffset:tag:
    void readDataToDataWithTimeoutBufferBufferOffsetTag(const QByteArray &terminator, double timeout,
                                                        std::shared_ptr<QByteArray> buffer, qsizetype offset,
                                                        long tag);
    //! @sel readDataToData:withTimeout:buffer:bufferOffset:maxLength:tag:
    void readDataToDataWithTimeoutBufferBufferOffsetMaxLengthTag(const QByteArray &terminator, double timeout,
                                                                 std::shared_ptr<QByteArray> buffer,
                                                                 qsizetype offset, qsizetype maxLength,
                                                                 long tag);

    // ---- writes and TLS ----
    //! Queues a write; completes with onSocketDidWriteDataWithTag once the
    //! stream has taken every byte.
    //! @sel writeData:withTimeout:tag:
    void writeDataWithTimeoutTag(const QByteArray &data, double timeout, long tag);
    //! Switches to TLS once the reads and writes queued before have completed;
    //! later ones wait for the handshake (onSocketDidSecure). Keys: AsyncSocketTLS.
    //! Raises AsyncSocketException on a socket that reads ahead.
    //! @sel startTLS:
    void startTLS(const QVariantMap &tlsSettings);

    // ---- ending ----
    //! Closes at once; pending requests are dropped. The delegate hears
    //! onSocketDidDisconnect (when something was open), before this returns.
    void disconnect();
    //! Closes once every queued read has completed; later requests are ignored.
    void disconnectAfterReading();
    //! Closes once every queued write has completed; later requests are ignored.
    void disconnectAfterWriting();
    void disconnectAfterReadingAndWriting();
    //! The bytes taken from the stream but not handed out: the current read's
    //! bytes done and the pre-buffered or read-ahead bytes. When an error closes the socket,
    //! everything the stream still holds is taken in first.
    QByteArray unreadData() const;

    // ---- queries ----
    //! Connected and announced to the delegate.
    bool isConnected() const;
    //! Neither listening, connecting nor connected.
    bool isDisconnected() const;
    //! The peer's address as text (IPv4-mapped addresses as IPv4); empty when
    //! not connected.
    QString connectedHost() const;
    quint16 connectedPort() const;
    //! The local address; for a listener, its IPv4 address if any, else IPv6.
    QString localHost() const;
    quint16 localPort() const;
    //! sockaddr bytes (see SockAddr); empty when unknown.
    QByteArray connectedAddress() const;
    QByteArray localAddress() const;
    //! For a listener: whether it listens on that family.
    bool isIPv4() const;
    bool isIPv6() const;
    //! The current read: its tag, bytes done and total (the fixed length, else
    //! 0). Answers done/total, NaN when the total is unknown or there is no
    //! current read (the outputs are then 0).
    //! @sel progressOfReadReturningTag:bytesDone:total:
    double progressOfReadReturningTagBytesDoneTotal(long *tag = nullptr, qsizetype *done = nullptr,
                                                    qsizetype *total = nullptr) const;
    //! The current write: total is its length; an empty write answers 1.
    //! @sel progressOfWriteReturningTag:bytesDone:total:
    double progressOfWriteReturningTagBytesDoneTotal(long *tag = nullptr, qsizetype *done = nullptr,
                                                     qsizetype *total = nullptr) const;

    //! "<AsyncSocket 0x…: local → remote, state, queue lengths>".
    QString description() const override;

protected:
    void dealloc() override;

private:
    //! The three disconnectAfter… variants: close once the named queues are done.
    void closeAfterQueues(bool reads, bool writes);
    friend class AsyncSocketPrivate;
    friend struct AsyncSocketTestAccess;
    AsyncSocketPrivate *d;
};

//! The socket-address extension of the data type: bytes holding a
//! sockaddr_in or sockaddr_in6.
namespace SockAddr {
//! The bytes as a socket address (zero-filled past the data; family
//! AF_UNSPEC when the data is too short for one).
ZT_EXPORT sockaddr_storage sockAddrStruct(const QByteArray &data);
//! The port, in host byte order; 0 for data that is not an IPv4 or IPv6 address.
ZT_EXPORT quint16 dataPort(const QByteArray &data);
//! The bytes of the address and port (in network order), empty for a null address.
ZT_EXPORT QByteArray dataWithHostAddress(const QHostAddress &address, quint16 port);
//! The address held by the bytes (null for other data).
ZT_EXPORT QHostAddress hostAddress(const QByteArray &data);
} // namespace SockAddr

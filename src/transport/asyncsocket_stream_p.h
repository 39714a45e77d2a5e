#pragma once
// The socket's stream: a QSslSocket, plain until a switch to TLS, with what
// the socket needs of it beyond Qt's own calls.

#include <QSslSocket>
#include <QVariantMap>

class AsyncSocketStream : public QSslSocket
{
public:
    using QSslSocket::QSslSocket;
    //! Qt's socket destructor closes the connection and signals it; by then
    //! this object is half gone, so nothing may still listen.
    ~AsyncSocketStream() override { QObject::disconnect(this, nullptr, nullptr, nullptr); }

    //! Takes up to `count` bytes. While the stream is plain, QIODevice::read()
    //! would read ahead into the device's own buffer, out of reach of a later
    //! handshake (the bytes after "STARTTLS\r\n" are the peer's handshake), so
    //! plain bytes are taken straight from the stream underneath; decrypted
    //! bytes live in the device buffer and are read from there.
    qint64 take(char *data, qint64 count)
    {
        return mode() == QSslSocket::UnencryptedMode ? readData(data, count) : read(data, count);
    }

    //! Whether bytes may go straight to the descriptor: the stream is plain
    //! and connected, and Qt holds no byte that must leave first.
    bool writesDirectly() const
    {
        return mode() == QSslSocket::UnencryptedMode && state() == QAbstractSocket::ConnectedState &&
               bytesToWrite() == 0 && socketDescriptor() >= 0;
    }

    //! Starts the handshake with the settings given to startTLS() (keys in
    //! AsyncSocketTLS). `accepted`: the stream came from a listener, which
    //! makes it the server unless the settings say otherwise.
    void startTLS(const QVariantMap &settings, bool accepted);

    //! Ends a plain stream that no longer belongs to any socket without
    //! costing the peer what it has not read yet (see the definition).
    void lingerAndClose();
};

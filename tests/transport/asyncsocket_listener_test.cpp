// A listening socket asked to close after its queues: it has none to drain,
// so each variant closes it at once and frees its port.

#include "asyncsocket_support.h"

#include <QTcpServer>

using namespace sockettest;

TEST(AsyncSocketListener, DrainingVariantsCloseAListenerAtOnce)
{
    const std::pair<const char *, void (AsyncSocket::*)()> variants[] = {
        {"after reading", &AsyncSocket::disconnectAfterReading},
        {"after writing", &AsyncSocket::disconnectAfterWriting},
        {"after reading and writing", &AsyncSocket::disconnectAfterReadingAndWriting},
    };
    for (const auto &[name, variant] : variants) {
        SCOPED_TRACE(name);
        Recorder recorder;
        zt::Ref<AsyncSocket> listener = AsyncSocket::createWithDelegate(&recorder);
        ASSERT_TRUE(listener->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0));
        const quint16 port = listener->localPort();
        ((*listener).*variant)();
        EXPECT_TRUE(listener->isDisconnected());
        listener.reset();
        flushDeferredDeletes();
        QTcpServer again; // the port is free again
        EXPECT_TRUE(again.listen(QHostAddress::LocalHost, port));
    }
}

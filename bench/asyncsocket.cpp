// AsyncSocket throughput over loopback: many length-prefixed frames (an
// 8-byte big-endian length, then the body), read the way the remote-
// invocation connection reads them: the length with tag 0 and no timeout,
// then the body with tag 1 and a 60-second timeout; each frame written as
// one write with a 60-second timeout. The ReadAhead variant's reading socket
// reads ahead (AsyncSocket::enableReadAhead), as the connection's does.

#include "transport/asyncsocket.h"

#include <QCoreApplication>
#include <QtEndian>
#include <benchmark/benchmark.h>

namespace {

class Reader : public AsyncSocketDelegate
{
public:
    qint64 frames = 0;
    qint64 bytes = 0;
    bool readAhead = false;
    zt::Ref<AsyncSocket> accepted;

    void onSocketDidAcceptNewSocket(AsyncSocket *, AsyncSocket *newSocket) override
    {
        accepted = newSocket;
        if (readAhead)
            newSocket->enableReadAhead();
    }
    void onSocketDidConnectToHostPort(AsyncSocket *sock, const QString &, quint16) override
    {
        if (sock == accepted.get())
            sock->readDataToLengthWithTimeoutTag(8, -1, 0);
    }
    void onSocketDidReadDataWithTag(AsyncSocket *sock, const QByteArray &data, long tag) override
    {
        if (tag == 0) {
            const auto length = qFromBigEndian<quint64>(data.constData());
            sock->readDataToLengthWithTimeoutTag(qsizetype(length), 60.0, 1);
            bytes += 8;
            return;
        }
        bytes += data.size();
        ++frames;
        sock->readDataToLengthWithTimeoutTag(8, -1, 0);
    }
};

class Writer : public AsyncSocketDelegate
{
public:
    bool connected = false;
    void onSocketDidConnectToHostPort(AsyncSocket *, const QString &, quint16) override { connected = true; }
};

struct Link
{
    Reader reader;
    Writer writer;
    zt::Ref<AsyncSocket> listener, client;

    explicit Link(bool readAhead)
    {
        reader.readAhead = readAhead;
        listener = AsyncSocket::createWithDelegate(&reader);
        listener->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0);
        client = AsyncSocket::createWithDelegate(&writer);
        client->connectToHostOnPortError(QStringLiteral("127.0.0.1"), listener->localPort());
        while (!writer.connected || !reader.accepted || !reader.accepted->isConnected())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    ~Link()
    {
        client->setDelegate(nullptr);
        listener->setDelegate(nullptr);
        if (reader.accepted)
            reader.accepted->setDelegate(nullptr);
    }
};

void runFrames(benchmark::State &state, Link *link)
{
    const qsizetype bodySize = state.range(0);
    constexpr int batch = 20000;
    QByteArray frame(8 + bodySize, 'x');
    qToBigEndian<quint64>(quint64(bodySize), frame.data());

    qint64 frames = 0;
    for (auto _ : state) {
        const qint64 target = link->reader.frames + batch;
        // The sender writes in slices, as a busy model would, while the loop
        // keeps both ends moving.
        for (int sent = 0; sent < batch;) {
            for (int k = 0; k < 1000 && sent < batch; ++k, ++sent)
                link->client->writeDataWithTimeoutTag(frame, 60.0, 0);
            QCoreApplication::processEvents();
        }
        while (link->reader.frames < target)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        frames += batch;
    }
    state.SetItemsProcessed(frames);
    state.SetBytesProcessed(frames * frame.size());
    state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}

void BM_LengthPrefixedFrames(benchmark::State &state)
{
    static Link *link = new Link(false); // one connection for every run
    runFrames(state, link);
}

void BM_LengthPrefixedFramesReadAhead(benchmark::State &state)
{
    static Link *link = new Link(true);
    runFrames(state, link);
}

BENCHMARK(BM_LengthPrefixedFrames)->Arg(16)->Arg(64)->Arg(256)->Arg(4096)->Arg(65536)->UseRealTime();
BENCHMARK(BM_LengthPrefixedFramesReadAhead)->Arg(16)->Arg(64)->Arg(256)->Arg(4096)->Arg(65536)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

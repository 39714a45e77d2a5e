// One change message as the agent sends it most, agentDidChangeValue:forKey:
// objectID: with a dictionary of about a dozen keys (strings, integers,
// booleans, a nested array of small dictionaries, 64 bytes of data, a date):
// encoding the whole message, decoding its body against a root's signature,
// and both. Items are messages.

#include "transport/vdmessage.h"
#include "core/ztipcproxy.h"
#include "core/ztrootobject.h"
#include "runtime/invocation.h"

#include <QDateTime>
#include <benchmark/benchmark.h>

namespace {

const zt::Selector ChangeSelector = "agentDidChangeValue:forKey:objectID:";

QVariantMap channel(int i)
{
    return {
        {QStringLiteral("description"), QStringLiteral("8C4B2E71-5D0F-4A9%1").arg(i)},
        {QStringLiteral("name"), QStringLiteral("#zintaro-%1").arg(i)},
        {QStringLiteral("unreadCount"), qint64(4 + i)},
        {QStringLiteral("joined"), i != 1},
    };
}

QVariantMap connectionDictionary()
{
    QByteArray data(64, Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char(i * 37 + 11);
    return {
        {QStringLiteral("description"), QStringLiteral("3F2504E0-4F89-11D3-9A0C-0305E82C3301")},
        {QStringLiteral("name"), QStringLiteral("Libera")},
        {QStringLiteral("nickname"), QStringLiteral("zintaro")},
        {QStringLiteral("serverAddress"), QStringLiteral("irc.libera.chat")},
        {QStringLiteral("port"), qint64(6697)},
        {QStringLiteral("status"), qint64(3)},
        {QStringLiteral("lag"), qint64(-1)},
        {QStringLiteral("usesSSL"), true},
        {QStringLiteral("away"), false},
        {QStringLiteral("channelDictionaries"), QVariantList{channel(0), channel(1), channel(2)}},
        {QStringLiteral("certificate"), data},
        {QStringLiteral("connectedSince"), QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC)},
    };
}

zt::Invocation changeMessage()
{
    zt::Invocation invocation(ZTIPCProxy::agentChangeProtocol().methodSignature(ChangeSelector));
    invocation.setSelector(ChangeSelector);
    invocation.setArgumentAtIndex(connectionDictionary(), 2);
    invocation.setArgumentAtIndex(QStringLiteral("connectionDictionary"), 3);
    invocation.setArgumentAtIndex(QStringLiteral("3F2504E0-4F89-11D3-9A0C-0305E82C3301"), 4);
    return invocation;
}

// The client's root as far as decoding is concerned: the agent's change
// messages and their signatures.
class ClientRoot : public zt::Object
{
public:
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override
    {
        return ZTIPCProxy::agentChangeProtocol().methodSignature(selector);
    }
};

void encode(benchmark::State &state)
{
    const zt::Invocation invocation = changeMessage();
    qsizetype bytes = 0;
    for (auto _ : state) {
        QByteArray message = vd::dataFromInvocation(invocation, QString(), &ZTRootObject::modelBridge());
        bytes = message.size();
        benchmark::DoNotOptimize(message.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * bytes);
    state.counters["message_bytes"] = double(bytes);
}

void decode(benchmark::State &state)
{
    const QByteArray message =
        vd::dataFromInvocation(changeMessage(), QString(), &ZTRootObject::modelBridge());
    const QByteArrayView body = QByteArrayView(message).sliced(8);
    auto root = zt::make<ClientRoot>();
    for (auto _ : state) {
        QString handler;
        std::optional<zt::Invocation> invocation = vd::invocationFromData(body, root.get(), &handler);
        if (!invocation) {
            state.SkipWithError("the message did not decode");
            break;
        }
        benchmark::DoNotOptimize(invocation->argumentData());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * message.size());
}

void encodeAndDecode(benchmark::State &state)
{
    const zt::Invocation sent = changeMessage();
    auto root = zt::make<ClientRoot>();
    for (auto _ : state) {
        const QByteArray message = vd::dataFromInvocation(sent, QString(), &ZTRootObject::modelBridge());
        QString handler;
        std::optional<zt::Invocation> received =
            vd::invocationFromData(QByteArrayView(message).sliced(8), root.get(), &handler);
        benchmark::DoNotOptimize(received->argumentData());
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(encode)->Name("vdmessage/encode");
BENCHMARK(decode)->Name("vdmessage/decode");
BENCHMARK(encodeAndDecode)->Name("vdmessage/encode+decode");

} // namespace

BENCHMARK_MAIN();

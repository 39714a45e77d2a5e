// Arbitrary bytes as the stream a connection reads: length words and bodies,
// split and dispatched exactly as the socket's reads would be, against a
// root object with methods of every type code, replies, refusals and results
// that cannot travel back. Nothing may escape the receive path, and no more
// calls may run than the stream holds whole messages. Forwarded names
// ("toAgent_<class>_<UUID>_<selector>") reach the root's own methods through
// the one parser of the form, which must split exactly the names of four
// parts and format them back to the same bytes.

#include "core/ztforwardedselector.h"
#include "runtime/exception.h"
#include "transport/vdconnection_p.h"

#include <QCoreApplication>
#include <QtEndian>
#include <cstdio>
#include <cstdlib>

namespace {

class FuzzRoot : public zt::Object
{
    ZT_OBJECT(FuzzRoot, zt::Object)
public:
    void ping() { ++runs; }
    void takeObject(const QVariant &) { ++runs; }
    void takeScalars(qint16, qint32, qint64, bool, quint32, quint64) { ++runs; }
    QVariant echo(const QVariant &v)
    {
        ++runs;
        return v;
    }
    qint64 sumWith(qint64 a, qint64 b)
    {
        ++runs;
        return qint64(quint64(a) + quint64(b));
    }
    QVariant self()
    {
        ++runs;
        return zt::objectValue(this);
    }
    void takeReal(double) { ++runs; }
    void refused(const QVariant &) { ++runs; }
    bool acceptsSelector(const QString &selector) const
    {
        return selector != u"r:" && methodSignatureForSelector(selector.toLatin1()).isValid();
    }
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override
    {
        if (const zt::MethodEntry *own = classInfo().instanceMethod(selector))
            return own->signature;
        const std::optional<ZTForwardedSelector> parts = ZTForwardedSelector::parse(selector, "toAgent_");
        if (!parts)
            return {};
        const zt::Selector again = ZTForwardedSelector::format(
            QString::fromLatin1(parts->prefix), QString::fromLatin1(parts->className),
            QString::fromLatin1(parts->objectID), parts->selector);
        if (again != selector || selector.count('_') != 3) {
            std::fprintf(stderr, "the forwarded name does not split into its four parts\n");
            std::abort();
        }
        const zt::MethodEntry *real = classInfo().instanceMethod(parts->selector);
        return real ? real->signature : zt::MethodSignature();
    }
    void forwardInvocation(zt::Invocation &invocation) override
    {
        const std::optional<ZTForwardedSelector> parts = ZTForwardedSelector::parse(invocation.selector());
        if (!parts)
            return Object::forwardInvocation(invocation);
        const auto count = size_t(invocation.methodSignature().numberOfArguments() - 2);
        invocation.setReturnValue(
            perform(parts->selector, std::span<const QVariant>(invocation.argumentData(), count)));
    }

    quint64 runs = 0;
};

// The model's answers without a model: no forwarded sends, and the values a
// property list can hold may cross.
class FuzzBridge final : public VDModelBridge
{
public:
    zt::MethodSignature signatureForForwardedSelector(const zt::Selector &) const override { return {}; }
    bool canWireValue(const QVariant &value) const override
    {
        return zt::kindOf(value) != zt::ValueKind::Object;
    }
};

} // namespace

ZT_DEFINE_CLASS_WITH_MEMBERS(FuzzRoot)

void FuzzRoot::registerMembers(zt::ClassBuilder<FuzzRoot> &b)
{
    b.method("ping", &FuzzRoot::ping);
    b.method("a:", &FuzzRoot::takeObject);
    b.method("s:i:q:c:I:Q:", &FuzzRoot::takeScalars);
    b.method("e:", &FuzzRoot::echo);
    b.method("s:w:", &FuzzRoot::sumWith);
    b.method("self", &FuzzRoot::self);
    b.method("d:", &FuzzRoot::takeReal);
    b.method("r:", &FuzzRoot::refused);
    b.method("acceptsSelector:", &FuzzRoot::acceptsSelector);
}

namespace {

// Whole messages in the stream under the given limit, as the reader sees them.
quint64 wholeMessages(const QByteArray &bytes, quint64 limit)
{
    quint64 n = 0;
    qsizetype position = 0;
    while (bytes.size() - position >= 8) {
        const quint64 length = qFromBigEndian<quint64>(bytes.constData() + position);
        position += 8;
        if (length > limit || length > quint64(bytes.size() - position))
            break;
        position += qsizetype(length);
        ++n;
    }
    return n;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // One connection for the run. Its gate stays closed: the replies it
    // makes are encoded and then dropped, so nothing piles up on a socket
    // that never connects.
    static FuzzRoot *root = zt::make<FuzzRoot>().leak();
    static VDConnection *connection = [] {
        VDConnection *c = VDConnection::createWithDelegate(nullptr).leak();
        static const FuzzBridge bridge;
        c->setLocalObject(root);
        c->setModelBridge(&bridge);
        c->setMaximumMessageLength(1 << 16);
        return c;
    }();

    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const quint64 before = root->runs;
    try {
        VDConnectionTestAccess::receive(connection, bytes);
    } catch (...) {
        std::fprintf(stderr, "an exception escaped the receive path\n");
        std::abort();
    }
    if (root->runs - before > wholeMessages(bytes, connection->maximumMessageLength())) {
        std::fprintf(stderr, "more calls ran than the stream holds messages\n");
        std::abort();
    }
    if (connection->pendingReturnHandlerCount() != 0 || !connection->queue().isEmpty()) {
        std::fprintf(stderr, "the receive path left handlers or queued messages\n");
        std::abort();
    }
    return 0;
}

// Arbitrary bytes as the body of one incoming message, decoded against a
// target with a method of every type code. Decoding fails only with its own
// named exceptions. Whatever it accepts encodes again (unless an argument
// cannot travel, which is a named exception too) and decodes to the same
// call: same selector, handler identifier and arguments.

#include "runtime/exception.h"
#include "runtime/invocation.h"
#include "transport/vdmessage.h"

#include <QByteArrayView>
#include <QtEndian>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Short selectors, so that mutations find them.
const zt::Protocol &methods()
{
    static const zt::Protocol protocol(QStringLiteral("FuzzMethods"), {
                                                                          {"ping", "v@:"},
                                                                          {"a:", "v@:@"},
                                                                          {"a:b:", "@@:@@"},
                                                                          {"s:", "v@:s"},
                                                                          {"i:", "v@:i"},
                                                                          {"q:", "v@:q"},
                                                                          {"c:", "v@:c"},
                                                                          {"I:", "v@:I"},
                                                                          {"Q:", "v@:Q"},
                                                                          {"d:", "v@:d"},
                                                                          {"o:s:i:q:c:I:Q:", "v@:@siqcIQ"},
                                                                      });
    return protocol;
}

class Target : public zt::Object
{
public:
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override
    {
        return methods().methodSignature(selector);
    }
};

[[noreturn]] void fail(const char *what, const QString &detail = {})
{
    std::fprintf(stderr, "%s %s\n", what, qPrintable(detail));
    std::abort();
}

bool same(const QVariant &a, const QVariant &b)
{
    const zt::ValueKind kind = zt::kindOf(a);
    if (kind != zt::kindOf(b))
        return false;
    switch (kind) {
    case zt::ValueKind::Real: {
        const double x = a.toDouble(), y = b.toDouble();
        return std::memcmp(&x, &y, sizeof x) == 0;
    }
    case zt::ValueKind::Date:
        return a.toDateTime().toMSecsSinceEpoch() == b.toDateTime().toMSecsSinceEpoch();
    case zt::ValueKind::Array: {
        const QVariantList x = a.toList(), y = b.toList();
        if (x.size() != y.size())
            return false;
        for (qsizetype i = 0; i < x.size(); ++i)
            if (!same(x[i], y[i]))
                return false;
        return true;
    }
    case zt::ValueKind::Dictionary: {
        const QVariantMap x = a.toMap(), y = b.toMap();
        if (x.size() != y.size())
            return false;
        for (auto i = x.cbegin(), j = y.cbegin(); i != x.cend(); ++i, ++j)
            if (i.key() != j.key() || !same(i.value(), j.value()))
                return false;
        return true;
    }
    default:
        return zt::valuesEqual(a, b);
    }
}

bool isOneOf(const QString &name, std::initializer_list<const char16_t *> names)
{
    for (const char16_t *n : names)
        if (name == QStringView(n))
            return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Decoding logs what it cannot parse; the lines are of no use here.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Target *target = new Target; // lives for the run
    // A copy of exactly the input, so that any read past it is caught.
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));

    QString handler;
    std::optional<zt::Invocation> call;
    try {
        call = vd::invocationFromData(body, target, &handler);
    } catch (const zt::Exception &e) {
        if (!isOneOf(e.name(),
                     {u"NSRangeException", u"Wrong number of arguments", u"Unknown argument format"}))
            fail("decoding raised", e.name() + QStringLiteral(": ") + e.reason());
        return 0;
    }
    if (!call)
        return 0;

    QByteArray again;
    try {
        again = vd::dataFromInvocation(*call, handler);
    } catch (const zt::Exception &e) {
        // Property lists may hold what cannot travel back: objects the
        // wiring check refuses (UIDs), null markers inside containers.
        if (!isOneOf(e.name(), {u"Unknown object type", u"EWREW"}))
            fail("encoding raised", e.name() + QStringLiteral(": ") + e.reason());
        return 0;
    }
    if (again.size() < 8 || qFromBigEndian<quint64>(again.constData()) != quint64(again.size() - 8))
        fail("length word does not match the message");

    QString handlerAgain;
    std::optional<zt::Invocation> callAgain;
    try {
        callAgain = vd::invocationFromData(QByteArrayView(again).sliced(8), target, &handlerAgain);
    } catch (const zt::Exception &e) {
        fail("a message we wrote does not decode", e.name() + QStringLiteral(": ") + e.reason());
    }
    if (!callAgain || callAgain->selector() != call->selector() || handlerAgain != handler)
        fail("selector or handler changed");
    const QVariantList before = call->arguments(), after = callAgain->arguments();
    for (qsizetype i = 0; i < before.size(); ++i) {
        // The null marker travels as an empty payload and arrives as nil.
        const QVariant expected = zt::isNullMarker(before[i]) ? QVariant() : before[i];
        if (!same(expected, after[i]))
            fail("argument changed", zt::describe(expected) + QStringLiteral(" / ") + zt::describe(after[i]));
    }
    return 0;
}

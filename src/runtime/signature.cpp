#include "runtime/signature.h"
#include "runtime/variant_inplace_p.h"

namespace zt {

int selectorArgumentCount(const Selector &selector)
{
    return int(selector.count(':'));
}

MethodSignature::MethodSignature(QByteArray returnType, QList<QByteArray> argumentTypes)
    : m_return(std::move(returnType)), m_arguments(std::move(argumentTypes))
{}

namespace {
bool isQualifier(char c)
{
    return c == 'r' || c == 'n' || c == 'N' || c == 'o' || c == 'O' || c == 'R' || c == 'V';
}

// Reads one (possibly qualified) code at `pos`, skipping frame offsets after it.
QByteArray readCode(const QByteArray &types, qsizetype &pos)
{
    const qsizetype start = pos;
    while (pos < types.size() && isQualifier(types[pos]))
        ++pos;
    if (pos >= types.size())
        return {};
    ++pos;
    QByteArray code = types.mid(start, pos - start);
    while (pos < types.size() && (std::isdigit(uchar(types[pos])) || types[pos] == '-'))
        ++pos;
    return code;
}
} // namespace

MethodSignature MethodSignature::fromTypes(const QByteArray &types)
{
    qsizetype pos = 0;
    QByteArray ret = readCode(types, pos);
    if (ret.isEmpty() || readCode(types, pos) != "@" || readCode(types, pos) != ":")
        return {};
    QList<QByteArray> args;
    while (pos < types.size()) {
        QByteArray code = readCode(types, pos);
        if (code.isEmpty())
            return {};
        args.append(code);
    }
    return MethodSignature(ret, args);
}

QByteArray MethodSignature::argumentTypeAt(qsizetype index) const
{
    if (index == 0)
        return QByteArrayLiteral("@");
    if (index == 1)
        return QByteArrayLiteral(":");
    return m_arguments.value(index - 2);
}

qsizetype MethodSignature::methodReturnLength() const
{
    return typeCodeWidth(m_return);
}

QByteArray MethodSignature::types() const
{
    QByteArray out = m_return + "@:";
    for (const QByteArray &a : m_arguments)
        out += a;
    return out;
}

qsizetype typeCodeWidth(const QByteArray &code)
{
    if (code.size() != 1)
        return code.isEmpty() ? 0 : typeCodeWidth(code.right(1));
    switch (code[0]) {
    case 'c':
    case 'C':
        return 1;
    case 's':
    case 'S':
        return 2;
    case 'i':
    case 'I':
    case 'f':
        return 4;
    case 'q':
    case 'Q':
    case 'd':
    case '@':
    case ':':
    case '#':
    case '*':
        return 8;
    default:
        return 0;
    }
}

QVariant coerceToTypeCode(const QVariant &value, const QByteArray &code)
{
    if (code.size() != 1)
        return value;
    return coerceToTypeCode(value, code[0]);
}

QVariant coerceToTypeCode(const QVariant &value, char code)
{
    switch (code) {
    case 'c':
        return QVariant(toInt64(value) != 0 || value.toBool());
    case 'C':
        return QVariant(quint64(quint8(toUInt64(value))));
    case 's':
        return QVariant(qint64(qint16(toInt64(value))));
    case 'S':
        return QVariant(quint64(quint16(toUInt64(value))));
    case 'i':
        return QVariant(qint64(qint32(toInt64(value))));
    case 'I':
        return QVariant(quint64(quint32(toUInt64(value))));
    case 'q':
        return QVariant(toInt64(value));
    case 'Q':
        return QVariant(toUInt64(value));
    case 'f':
    case 'd':
        return QVariant(value.toDouble());
    default:
        return value;
    }
}

namespace {

// Whether coerceToTypeCode() would answer `value` itself.
bool alreadyCoerced(const QVariant &value, char code)
{
    const int id = detail::typeIdOf(value);
    const auto signedFits = [&](auto narrow) {
        if (id != QMetaType::LongLong)
            return false;
        const qlonglong v = *static_cast<const qlonglong *>(value.constData());
        return v == qlonglong(decltype(narrow)(v));
    };
    const auto unsignedFits = [&](auto narrow) {
        if (id != QMetaType::ULongLong)
            return false;
        const qulonglong v = *static_cast<const qulonglong *>(value.constData());
        return v == qulonglong(decltype(narrow)(v));
    };
    switch (code) {
    case 'c':
        return id == QMetaType::Bool;
    case 'C':
        return unsignedFits(quint8());
    case 's':
        return signedFits(qint16());
    case 'S':
        return unsignedFits(quint16());
    case 'i':
        return signedFits(qint32());
    case 'I':
        return unsignedFits(quint32());
    case 'q':
        return id == QMetaType::LongLong;
    case 'Q':
        return id == QMetaType::ULongLong;
    case 'f':
    case 'd':
        return id == QMetaType::Double;
    default:
        return true;
    }
}

} // namespace

bool isCoercedToTypeCode(const QVariant &value, char code)
{
    return alreadyCoerced(value, code);
}

void coerceToTypeCodeInPlace(QVariant &value, const QByteArray &code)
{
    if (code.size() != 1 || alreadyCoerced(value, code[0]))
        return;
    detail::replaceWith(value, coerceToTypeCode(value, code));
}

Protocol::Protocol(QString name, std::initializer_list<std::pair<const char *, const char *>> requiredMethods)
    : m_name(std::move(name))
{
    for (const auto &[sel, types] : requiredMethods)
        addMethod(Selector(sel), MethodSignature::fromTypes(QByteArray(types)));
}

void Protocol::addMethod(const Selector &selector, MethodSignature signature, bool required)
{
    (required ? m_required : m_optional).insert(selector, std::move(signature));
}

MethodSignature Protocol::methodSignature(const Selector &selector, bool required) const
{
    return (required ? m_required : m_optional).value(selector);
}

QList<Selector> Protocol::selectors(bool required) const
{
    return (required ? m_required : m_optional).keys();
}

} // namespace zt

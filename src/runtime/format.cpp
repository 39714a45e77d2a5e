#include "runtime/format.h"

#include "runtime/object.h"
#include "runtime/value.h"

namespace zt {

namespace {

QString objectText(const FormatArg &arg)
{
    switch (arg.kind()) {
    case FormatArg::Kind::Object:
        return arg.pointer() ? static_cast<const Object *>(arg.pointer())->description()
                             : QStringLiteral("(null)");
    case FormatArg::Kind::Pointer:
        return arg.pointer() ? QStringLiteral("0x") + QString::number(quintptr(arg.pointer()), 16)
                             : QStringLiteral("0x0");
    case FormatArg::Kind::Variant:
        break;
    }
    return describe(arg.value());
}

QString pointerText(const FormatArg &arg)
{
    if (arg.kind() != FormatArg::Kind::Variant)
        return QStringLiteral("0x") + QString::number(quintptr(arg.pointer()), 16);
    const ValueKind k = kindOf(arg.value());
    if (k == ValueKind::Object)
        return QStringLiteral("0x") + QString::number(quintptr(objectFrom(arg.value())), 16);
    if (k == ValueKind::Signed || k == ValueKind::Unsigned)
        return QStringLiteral("0x") + QString::number(arg.value().toULongLong(), 16);
    return QStringLiteral("0x") + QString::number(quintptr(arg.value().constData()), 16);
}

QString stringText(const FormatArg &arg)
{
    if (arg.kind() != FormatArg::Kind::Variant)
        return objectText(arg);
    const QVariant &v = arg.value();
    if (!v.isValid())
        return QStringLiteral("(null)");
    if (v.typeId() == QMetaType::QByteArray)
        return QString::fromUtf8(v.toByteArray());
    return describe(v);
}

} // namespace

QString formatArgs(QStringView format, const FormatArg *args, qsizetype count)
{
    QString out;
    out.reserve(format.size() + 16 * count);
    qsizetype next = 0;
    const qsizetype n = format.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar c = format[i];
        if (c != u'%' || i + 1 >= n) {
            out += c;
            continue;
        }
        const qsizetype start = i;
        ++i;
        if (format[i] == u'%') {
            out += u'%';
            continue;
        }
        bool leftAlign = false;
        QChar pad = u' ';
        while (i < n && (format[i] == u'-' || format[i] == u'0')) {
            if (format[i] == u'-')
                leftAlign = true;
            else
                pad = u'0';
            ++i;
        }
        int width = 0;
        while (i < n && format[i].isDigit())
            width = width * 10 + format[i++].digitValue();
        int precision = -1;
        if (i < n && format[i] == u'.') {
            precision = 0;
            ++i;
            while (i < n && format[i].isDigit())
                precision = precision * 10 + format[i++].digitValue();
        }
        while (i < n && (format[i] == u'l' || format[i] == u'h' || format[i] == u'q' || format[i] == u'z'))
            ++i;
        if (i >= n) {
            out += format.mid(start);
            break;
        }
        const QChar conv = format[i];
        const FormatArg *arg = next < count ? &args[next] : nullptr;
        QString piece;
        switch (conv.unicode()) {
        case '@':
            piece = arg ? objectText(*arg) : QStringLiteral("(null)");
            break;
        case 'd':
        case 'i':
            piece = arg ? QString::number(arg->value().toLongLong()) : QStringLiteral("0");
            break;
        case 'u':
            piece = arg ? QString::number(arg->value().toULongLong()) : QStringLiteral("0");
            break;
        case 'x':
        case 'X':
            piece = arg ? QString::number(arg->value().toULongLong(), 16) : QStringLiteral("0");
            if (conv == u'X')
                piece = piece.toUpper();
            break;
        case 'c':
            piece = arg ? QString(QChar(char16_t(arg->value().toUInt()))) : QString();
            break;
        case 'f':
        case 'g':
            piece = arg ? QString::number(arg->value().toDouble(), char(conv.unicode()),
                                          precision < 0 ? 6 : precision)
                        : QStringLiteral("0");
            break;
        case 's':
            piece = arg ? stringText(*arg) : QStringLiteral("(null)");
            break;
        case 'p':
            piece = arg ? pointerText(*arg) : QStringLiteral("0x0");
            break;
        default:
            out += format.mid(start, i - start + 1);
            continue;
        }
        ++next;
        if (piece.size() < width) {
            const QString fill(width - piece.size(), leftAlign ? QChar(u' ') : pad);
            piece = leftAlign ? piece + fill : fill + piece;
        }
        out += piece;
    }
    return out;
}

} // namespace zt

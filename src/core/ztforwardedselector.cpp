#include "core/ztforwardedselector.h"

#include <array>

std::optional<ZTForwardedSelector> ZTForwardedSelector::parse(QByteArrayView name)
{
    std::array<qsizetype, 3> cuts{};
    qsizetype found = 0;
    for (qsizetype i = 0; i < name.size(); ++i) {
        if (name[i] != '_')
            continue;
        if (found == 3)
            return std::nullopt;
        cuts[size_t(found++)] = i;
    }
    if (found != 3)
        return std::nullopt;
    ZTForwardedSelector parts;
    parts.prefix = name.first(cuts[0]).toByteArray();
    parts.className = name.sliced(cuts[0] + 1, cuts[1] - cuts[0] - 1).toByteArray();
    parts.objectID = name.sliced(cuts[1] + 1, cuts[2] - cuts[1] - 1).toByteArray();
    parts.selector = name.sliced(cuts[2] + 1).toByteArray();
    return parts;
}

std::optional<ZTForwardedSelector> ZTForwardedSelector::parse(QByteArrayView name, QByteArrayView prefix)
{
    if (!name.startsWith(prefix))
        return std::nullopt;
    return parse(name);
}

zt::Selector ZTForwardedSelector::format(QStringView prefix, QStringView className, QStringView objectID,
                                         const zt::Selector &selector)
{
    zt::Selector out;
    out.reserve(prefix.size() + className.size() + objectID.size() + selector.size() + 3);
    out += prefix.toLatin1();
    out += '_';
    out += className.toLatin1();
    out += '_';
    out += objectID.toLatin1();
    out += '_';
    out += selector;
    return out;
}

#pragma once
// The name under which a model object's call crosses to the other process:
// "<prefix>_<class>_<UUID>_<selector>", the prefix "toAgent" or "toClient".
// Class names, UUIDs and forwarded selectors hold no "_", so the name splits
// back at "_" into exactly four parts. This is the only place that writes or
// reads the form.

#include "runtime/signature.h"

#include <optional>

struct ZT_EXPORT ZTForwardedSelector
{
    QByteArray prefix;
    QByteArray className;
    QByteArray objectID;
    zt::Selector selector;

    //! The four parts of `name`, or nothing when it does not split at "_"
    //! into exactly four.
    static std::optional<ZTForwardedSelector> parse(QByteArrayView name);
    //! The parts of `name` when it starts with `prefix` (the sender's check
    //! passes "toClient"; a receiver passes "toAgent_" to demand the whole part).
    static std::optional<ZTForwardedSelector> parse(QByteArrayView name, QByteArrayView prefix);
    //! "%@_%@_%@_%@" of the four parts.
    static zt::Selector format(QStringView prefix, QStringView className, QStringView objectID,
                               const zt::Selector &selector);
};

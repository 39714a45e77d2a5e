#pragma once
// Readable GoogleTest failure output for attributed strings.

#include "text/attributedstring.h"

#include <QDebug>
#include <ostream>

namespace zt {

inline void PrintTo(const AttributedString &string, std::ostream *out)
{
    QString text;
    QDebug(&text) << string;
    *out << text.toStdString();
}

inline void PrintTo(const TextAttributes &attributes, std::ostream *out)
{
    QString text;
    QDebug(&text) << attributes;
    *out << text.toStdString();
}

} // namespace zt

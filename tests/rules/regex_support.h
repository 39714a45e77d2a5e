#pragma once
// Helpers shared by the regular-expression tests.

#include "rules/koregex.h"
#include "rules/koregexmatch.h"
#include "runtime/exception.h"

#include <QString>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <string>

inline void PrintTo(const KORange &range, std::ostream *os)
{
    *os << KOStringFromRange(range).toStdString();
}

namespace regextest {

inline const auto qs = [](const char *utf8) { return QString::fromUtf8(utf8); };

inline zt::Ref<KORegex> compile(const char *pattern, int options = 0)
{
    zt::Ref<KORegex> regex = KORegex::regexWithPattern(qs(pattern), options);
    EXPECT_TRUE(regex) << "pattern did not compile: " << pattern;
    return regex;
}

//! The name and reason of the zt::Exception that `body` raises, or "none".
inline std::string raised(const std::function<void()> &body)
{
    try {
        body();
    } catch (const zt::Exception &e) {
        return (e.name() + QStringLiteral(": ") + e.reason()).toStdString();
    }
    return "none";
}

inline const auto rangeText = [](const KORange &range) { return KOStringFromRange(range).toStdString(); };

//! "{l, n}" for each match, space-separated.
inline std::string rangesOf(const QList<zt::Ref<KORegexMatch>> &matches)
{
    std::string out;
    for (const auto &match : matches) {
        if (!out.empty())
            out += ' ';
        out += rangeText(match->range());
    }
    return out;
}

} // namespace regextest

#pragma once
// Process facts: the application identifier (reverse-DNS, e.g.
// "com.example.Zintaro2Agent"; an agent's ends with "Agent") and globally
// unique strings.

#include "zt_export.h"

#include <QString>

namespace zt::process {

//! The application identifier. Set by the application before the first model
//! object is made; until then it is empty (a client).
ZT_EXPORT QString applicationIdentifier();
ZT_EXPORT void setApplicationIdentifier(const QString &identifier);

//! A new globally unique string: upper-case UUID text without braces
//! ("6F9619FF-8B86-D011-B42D-00C04FC964FF"), so it never holds "_".
ZT_EXPORT QString globallyUniqueString();

} // namespace zt::process

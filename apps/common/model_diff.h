#pragma once
// Recursive comparison of two values of the dictionary form, for checking
// that a mirror holds what its original holds. Kinds must agree (YES
// differs from 1, 1 from 1.0), except that integers compare by value whatever
// their signedness: the wire carries a small unsigned number as a signed
// one. Both dictionary types compare alike.

#include "runtime/value.h"

namespace zt::apps {

//! One readable line per difference, each led by its key path
//! ("networks.2.port: expected 6667, found 6697"); empty when equal.
QStringList describeDifferences(const QVariant &expected, const QVariant &actual, const QString &path = {});

} // namespace zt::apps

#pragma once
// Key-value observation types.

#include "runtime/indexset.h"

#include <QFlags>
#include <QVariant>

namespace zt {

//! Change kinds of a change record.
enum class KeyValueChange : quint32
{
    Setting = 1,
    Insertion = 2,
    Removal = 3,
    Replacement = 4,
};

//! Observation options: new 1, old 2, initial 4, prior 8.
enum class ObservingOption : quint32
{
    New = 0x01,
    Old = 0x02,
    Initial = 0x04,
    Prior = 0x08,
};
Q_DECLARE_FLAGS(ObservingOptions, ObservingOption)
Q_DECLARE_OPERATORS_FOR_FLAGS(ObservingOptions)

//! One change record as delivered to an observer. `newValue`/`oldValue` are
//! filled only when the observer asked for them; a nil value is delivered as
//! the null marker. For insertions, removals and replacements the values are
//! arrays of the elements at `indexes`.
struct KVOChange
{
    KeyValueChange kind = KeyValueChange::Setting;
    QVariant newValue;
    QVariant oldValue;
    IndexSet indexes;
    bool hasIndexes = false;
    bool isPrior = false;
};

} // namespace zt

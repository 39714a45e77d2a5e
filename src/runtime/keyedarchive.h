#pragma once
// Keyed archives: an object graph stored as a binary property list.
//
// Layout (docs/archive.md has the details):
//   { "$archiver": "NSKeyedArchiver", "$version": 100000,
//     "$top": { "root": UID },
//     "$objects": [ "$null", … ] }
// Every archived value is an entry of "$objects", referred to by UID; UID 0
// is "$null" (nil). Strings, numbers, data and dates stand as themselves.
// Arrays are { "$class": UID, "NS.objects": [UID…] }, dictionaries add
// "NS.keys"; an index set is { "$class": UID, "NS.ranges": [loc, len, …] };
// the null marker is { "$class": UID }. An object is { "$class": UID, key:
// value… } with what its encodeWithCoder() wrote: scalars (encodeBool,
// encodeInt64, encodeDouble) inline, everything else as a UID. A class entry
// is { "$classname": name, "$classes": [name, superclass names…] }. One
// object archived twice is stored once, so shared references and cycles
// survive a round trip.

#include "runtime/error.h"
#include "runtime/object.h"

#include <QHash>
#include <QSet>
#include <memory>
#include <optional>

namespace zt {

class KeyedArchiver;
class KeyedUnarchiver;

//! Objects that archive themselves.
class ZT_EXPORT Coding
{
public:
    virtual ~Coding() = default;
    //! @sel encodeWithCoder:
    virtual void encodeWithCoder(KeyedArchiver &coder) const = 0;
    //! Runs on an instance made with the class's plain constructor.
    //! @sel initWithCoder:
    virtual void initWithCoder(KeyedUnarchiver &coder) = 0;
};

class ZT_EXPORT KeyedArchiver
{
public:
    KeyedArchiver();
    ~KeyedArchiver();

    //! Archives a whole graph; raises NSInvalidArgumentException for an
    //! object that does not adopt Coding.
    static QByteArray archivedDataWithRootObject(const QVariant &root);

    //! Any value: nil, null marker, property-list values, index sets, arrays
    //! and dictionaries of those, and objects that adopt Coding.
    void encodeObject(const QVariant &value, const QString &key);
    void encodeBool(bool value, const QString &key);
    void encodeInt64(qint64 value, const QString &key);
    void encodeDouble(double value, const QString &key);

private:
    struct State;
    std::unique_ptr<State> d;
};

struct UnarchiveLimits
{
    int maxDepth = 256;
    qsizetype maxObjects = 1'000'000;
};

class ZT_EXPORT KeyedUnarchiver
{
public:
    using Limits = UnarchiveLimits;

    //! The root value, or nullopt with an error for an archive that is not
    //! well formed (bad references, wrong types, unknown classes, cycles
    //! through plain values, depth past the limit).
    static std::optional<QVariant> unarchiveObjectWithData(const QByteArray &data, Error *error = nullptr,
                                                           const Limits &limits = {});

    bool containsValueForKey(const QString &key) const;
    QVariant decodeObjectForKey(const QString &key);
    bool decodeBoolForKey(const QString &key);
    qint64 decodeInt64ForKey(const QString &key);
    double decodeDoubleForKey(const QString &key);

    KeyedUnarchiver(const KeyedUnarchiver &) = delete;
    ~KeyedUnarchiver();

private:
    KeyedUnarchiver();
    struct State;
    std::unique_ptr<State> d;
};

} // namespace zt

#include "runtime/keyedarchive.h"

#include "runtime/dictionary.h"
#include "runtime/exception.h"
#include "runtime/fastpath_p.h"
#include "runtime/format.h"
#include "runtime/plist.h"

#include <vector>

namespace zt {

namespace {

// The archive's own keys are interned, like the keys classes name, so that
// decoded archives share their characters.
const QString ClassKey = fastpath::internKey(QStringLiteral("$class"));
const QString ClassNameKey = fastpath::internKey(QStringLiteral("$classname"));
const QString ClassesKey = fastpath::internKey(QStringLiteral("$classes"));
const QString ObjectsKey = fastpath::internKey(QStringLiteral("NS.objects"));
const QString KeysKey = fastpath::internKey(QStringLiteral("NS.keys"));
const QString RangesKey = fastpath::internKey(QStringLiteral("NS.ranges"));
[[maybe_unused]] const bool topKeysInterned = [] {
    for (const char16_t *key : {u"$archiver", u"$version", u"$top", u"$objects"})
        fastpath::internKey(QString::fromUtf16(key));
    return true;
}();
const QString NullEntry = QStringLiteral("$null");
const QString ArchiverName = QStringLiteral("NSKeyedArchiver");
constexpr qint64 ArchiveVersion = 100000;

QVariant uidValue(quint64 uid)
{
    return QVariant::fromValue(Uid{uid});
}

} // namespace

// ---- archiving ----

struct KeyedArchiver::State
{
    QVariantList objects{NullEntry};
    QHash<const Object *, quint64> objectUids;
    QHash<QString, quint64> stringUids;
    QHash<QString, quint64> classUids;
    std::vector<QVariantMap> stack; // the entries being filled, innermost last
    int depth = 0;

    quint64 reserve()
    {
        objects.append(QVariant());
        return quint64(objects.size() - 1);
    }

    quint64 classUid(const QString &name, const QStringList &chain)
    {
        if (auto it = classUids.constFind(name); it != classUids.cend())
            return *it;
        const quint64 uid = reserve();
        QVariantList classes;
        for (const QString &c : chain)
            classes.append(c);
        objects[qsizetype(uid)] = QVariantMap{{ClassNameKey, name}, {ClassesKey, classes}};
        classUids.insert(name, uid);
        return uid;
    }

    //! A built-in class of the archive format, directly under NSObject.
    QVariant builtinClass(const char *name)
    {
        const QString n = QString::fromLatin1(name);
        return uidValue(classUid(n, {n, QStringLiteral("NSObject")}));
    }

    quint64 classUid(const ClassInfo &cls)
    {
        QStringList chain;
        for (const ClassInfo *c = &cls; c; c = c->superclass())
            chain.append(c->name());
        return classUid(cls.name(), chain);
    }

    quint64 encode(KeyedArchiver &archiver, const QVariant &value)
    {
        if (++depth > plist::MaxWriteDepth)
            invalidArgument(
                QStringLiteral("-[NSKeyedArchiver encodeObject:forKey:]: value nested too deeply"));
        const quint64 uid = encodeValue(archiver, value);
        --depth;
        return uid;
    }

    quint64 encodeValue(KeyedArchiver &archiver, const QVariant &value)
    {
        switch (kindOf(value)) {
        case ValueKind::Nil:
            return 0;
        case ValueKind::String: {
            const QString s = value.toString();
            if (auto it = stringUids.constFind(s); it != stringUids.cend())
                return *it;
            objects.append(s);
            return stringUids[s] = quint64(objects.size() - 1);
        }
        case ValueKind::Bool:
        case ValueKind::Signed:
        case ValueKind::Unsigned:
        case ValueKind::Real:
        case ValueKind::Data:
        case ValueKind::Date:
            objects.append(value);
            return quint64(objects.size() - 1);
        case ValueKind::Null: {
            const quint64 uid = reserve();
            objects[qsizetype(uid)] = QVariantMap{{ClassKey, builtinClass("NSNull")}};
            return uid;
        }
        case ValueKind::Array: {
            const quint64 uid = reserve();
            QVariantList refs;
            for (const QVariant &e : value.toList())
                refs.append(uidValue(encode(archiver, e)));
            objects[qsizetype(uid)] = QVariantMap{{ObjectsKey, refs}, {ClassKey, builtinClass("NSArray")}};
            return uid;
        }
        case ValueKind::Dictionary: {
            const quint64 uid = reserve();
            QVariantList keys, refs;
            const QVariantMap map = value.toMap();
            for (auto it = map.cbegin(); it != map.cend(); ++it) {
                keys.append(uidValue(encode(archiver, it.key())));
                refs.append(uidValue(encode(archiver, it.value())));
            }
            objects[qsizetype(uid)] =
                QVariantMap{{KeysKey, keys}, {ObjectsKey, refs}, {ClassKey, builtinClass("NSDictionary")}};
            return uid;
        }
        case ValueKind::IndexSet: {
            QVariantList ranges;
            const IndexSet set = value.value<IndexSet>();
            for (const IndexSet::Range &r : set.ranges()) {
                ranges.append(QVariant(quint64(r.location)));
                ranges.append(QVariant(quint64(r.length)));
            }
            const quint64 uid = reserve();
            objects[qsizetype(uid)] =
                QVariantMap{{RangesKey, ranges}, {ClassKey, builtinClass("NSIndexSet")}};
            return uid;
        }
        case ValueKind::Object: {
            const Object *object = objectFrom(value);
            if (auto it = objectUids.constFind(object); it != objectUids.cend())
                return *it;
            const auto *coding = dynamic_cast<const Coding *>(object);
            if (!coding)
                invalidArgument(
                    format(u"-[NSKeyedArchiver encodeObject:forKey:]: object of class %@ does not "
                           u"support keyed archiving",
                           object->className()));
            const quint64 uid = reserve();
            objectUids.insert(object, uid);
            stack.emplace_back();
            coding->encodeWithCoder(archiver);
            QVariantMap entry = std::move(stack.back());
            stack.pop_back();
            entry.insert(ClassKey, uidValue(classUid(object->classInfo())));
            objects[qsizetype(uid)] = std::move(entry);
            return uid;
        }
        case ValueKind::Uid:
        case ValueKind::Other:
            break;
        }
        invalidArgument(
            format(u"-[NSKeyedArchiver encodeObject:forKey:]: value of class %@ cannot be archived",
                   valueClassName(value)));
    }
};

KeyedArchiver::KeyedArchiver() : d(std::make_unique<State>())
{
    d->stack.emplace_back(); // "$top"
}

KeyedArchiver::~KeyedArchiver() = default;

QByteArray KeyedArchiver::archivedDataWithRootObject(const QVariant &root)
{
    KeyedArchiver archiver;
    archiver.encodeObject(root, QStringLiteral("root"));
    const QVariantMap archive{
        {QStringLiteral("$archiver"), ArchiverName},
        {QStringLiteral("$version"), QVariant(ArchiveVersion)},
        {QStringLiteral("$top"), archiver.d->stack.front()},
        {QStringLiteral("$objects"), archiver.d->objects},
    };
    Error error;
    QByteArray data = plist::writeBinary(archive, &error);
    if (data.isEmpty())
        invalidArgument(format(u"-[NSKeyedArchiver finishEncoding]: %@", error.localizedDescription()));
    return data;
}

void KeyedArchiver::encodeObject(const QVariant &value, const QString &key)
{
    const quint64 uid = d->encode(*this, value);
    d->stack.back().insert(key, uidValue(uid));
}

void KeyedArchiver::encodeBool(bool value, const QString &key)
{
    d->stack.back().insert(key, value);
}

void KeyedArchiver::encodeInt64(qint64 value, const QString &key)
{
    d->stack.back().insert(key, value);
}

void KeyedArchiver::encodeDouble(double value, const QString &key)
{
    d->stack.back().insert(key, value);
}

// ---- unarchiving ----

namespace {
// A fault in the archive's structure; turned into an Error at the top.
struct ArchiveFault
{
    QString what;
};
} // namespace

struct KeyedUnarchiver::State
{
    QVariantList objects;
    UnarchiveLimits limits;
    QHash<quint64, QVariant> decoded;
    QSet<quint64> inProgress;
    std::vector<Dictionary> stack;
    int depth = 0;

    [[noreturn]] static void fault(const QString &what) { throw ArchiveFault{what}; }

    Dictionary entryMap(quint64 uid) const { return dictionaryFrom(objects[qsizetype(uid)]); }

    QString classNameOf(const Dictionary &entry) const
    {
        const QVariant cls = entry.value(ClassKey);
        if (kindOf(cls) != ValueKind::Uid)
            fault(QStringLiteral("an archived object has no class reference"));
        const quint64 uid = cls.value<Uid>().value;
        if (uid >= quint64(objects.size()))
            fault(QStringLiteral("a class reference points past the object table"));
        const QVariant name = entryMap(uid).value(ClassNameKey);
        if (kindOf(name) != ValueKind::String)
            fault(QStringLiteral("a class entry has no class name"));
        return name.toString();
    }

    QList<quint64> uidList(const Dictionary &entry, const QString &key) const
    {
        const QVariant v = entry.value(key);
        if (kindOf(v) != ValueKind::Array)
            fault(format(u"a collection has no %@ array", key));
        QList<quint64> out;
        for (const QVariant &e : v.toList()) {
            if (kindOf(e) != ValueKind::Uid)
                fault(format(u"%@ holds something that is not a reference", key));
            out.append(e.value<Uid>().value);
        }
        return out;
    }

    QVariant decode(KeyedUnarchiver &coder, quint64 uid)
    {
        if (uid >= quint64(objects.size()))
            fault(format(u"reference %lu points past the object table", uid));
        if (uid == 0)
            return {};
        if (auto it = decoded.constFind(uid); it != decoded.cend())
            return *it;
        if (inProgress.contains(uid))
            fault(format(u"reference %lu is part of a cycle of plain values", uid));
        if (++depth > limits.maxDepth)
            fault(QStringLiteral("the archive is nested too deeply"));
        if (qsizetype(decoded.size()) >= limits.maxObjects)
            fault(QStringLiteral("the archive holds too many objects"));
        inProgress.insert(uid);
        QVariant result = decodeEntry(coder, uid);
        inProgress.remove(uid);
        --depth;
        decoded.insert(uid, result);
        return result;
    }

    QVariant decodeEntry(KeyedUnarchiver &coder, quint64 uid)
    {
        const QVariant &raw = objects[qsizetype(uid)];
        switch (kindOf(raw)) {
        case ValueKind::String:
        case ValueKind::Bool:
        case ValueKind::Signed:
        case ValueKind::Unsigned:
        case ValueKind::Real:
        case ValueKind::Data:
        case ValueKind::Date:
            return raw;
        case ValueKind::Dictionary:
            break;
        default:
            fault(format(u"entry %lu is of no archivable kind", uid));
        }
        const Dictionary entry = entryMap(uid);
        const QString cls = classNameOf(entry);
        if (cls == u"NSNull")
            return nullValue();
        if (cls == u"NSArray" || cls == u"NSMutableArray") {
            QVariantList out;
            for (quint64 e : uidList(entry, ObjectsKey))
                out.append(decode(coder, e));
            return out;
        }
        if (cls == u"NSDictionary" || cls == u"NSMutableDictionary") {
            const QList<quint64> keys = uidList(entry, KeysKey);
            const QList<quint64> values = uidList(entry, ObjectsKey);
            if (keys.size() != values.size())
                fault(QStringLiteral("a dictionary has more keys than values or the reverse"));
            QVariantMap out;
            for (qsizetype i = 0; i < keys.size(); ++i) {
                const QVariant key = decode(coder, keys[i]);
                if (kindOf(key) != ValueKind::String)
                    fault(QStringLiteral("a dictionary key is not a string"));
                out.insert(key.toString(), decode(coder, values[i]));
            }
            return out;
        }
        if (cls == u"NSIndexSet" || cls == u"NSMutableIndexSet") {
            const QVariantList ranges = entry.value(RangesKey).toList();
            if (ranges.size() % 2)
                fault(QStringLiteral("an index set has an odd number of range fields"));
            IndexSet set;
            for (qsizetype i = 0; i < ranges.size(); i += 2)
                set.addRange(ranges[i].toULongLong(), ranges[i + 1].toULongLong());
            return QVariant::fromValue(set);
        }
        const ClassInfo *info = ClassInfo::named(cls);
        if (!info)
            fault(format(u"cannot decode object of class (%@)", cls));
        Ref<Object> object = info->createInstance();
        auto *coding = dynamic_cast<Coding *>(object.get());
        if (!coding)
            fault(format(u"class %@ does not support keyed archiving", cls));
        // Registered before its contents, so references back to it resolve.
        const QVariant value = objectValue(object.get());
        decoded.insert(uid, value);
        inProgress.remove(uid);
        stack.push_back(entry);
        coding->initWithCoder(coder);
        stack.pop_back();
        return value;
    }
};

KeyedUnarchiver::KeyedUnarchiver() : d(std::make_unique<State>()) {}
KeyedUnarchiver::~KeyedUnarchiver() = default;

std::optional<QVariant> KeyedUnarchiver::unarchiveObjectWithData(const QByteArray &data, Error *error,
                                                                 const Limits &limits)
{
    auto fail = [error](const QString &what) -> std::optional<QVariant> {
        if (error)
            *error = Error(
                QStringLiteral("NSCocoaErrorDomain"), 4864,
                format(u"The data couldn\u2019t be read because it isn\u2019t in the correct format: %@",
                       what));
        return std::nullopt;
    };
    Error plistError;
    plist::ReadLimits plistLimits;
    plistLimits.maxObjects = limits.maxObjects;
    const std::optional<QVariant> root = plist::readBinary(data, &plistError, plistLimits);
    if (!root)
        return fail(plistError.localizedDescription());
    const Dictionary archive = dictionaryFrom(*root);
    if (archive.value(QStringLiteral("$archiver")).toString() != ArchiverName)
        return fail(QStringLiteral("not a keyed archive"));
    const QVariant objects = archive.value(QStringLiteral("$objects"));
    const QVariant top = archive.value(QStringLiteral("$top"));
    if (kindOf(objects) != ValueKind::Array || kindOf(top) != ValueKind::Dictionary)
        return fail(QStringLiteral("the archive lacks its object table or its top"));

    KeyedUnarchiver coder;
    coder.d->objects = objects.toList();
    coder.d->limits = limits;
    if (coder.d->objects.isEmpty())
        return fail(QStringLiteral("the object table is empty"));
    coder.d->stack.push_back(dictionaryFrom(top));
    try {
        return coder.decodeObjectForKey(QStringLiteral("root"));
    } catch (const ArchiveFault &f) {
        return fail(f.what);
    }
}

bool KeyedUnarchiver::containsValueForKey(const QString &key) const
{
    return !d->stack.empty() && d->stack.back().contains(key);
}

QVariant KeyedUnarchiver::decodeObjectForKey(const QString &key)
{
    if (d->stack.empty())
        return {};
    const QVariant v = d->stack.back().value(key);
    if (kindOf(v) == ValueKind::Uid)
        return d->decode(*this, v.value<Uid>().value);
    return v;
}

bool KeyedUnarchiver::decodeBoolForKey(const QString &key)
{
    return d->stack.empty() ? false : d->stack.back().value(key).toBool();
}

qint64 KeyedUnarchiver::decodeInt64ForKey(const QString &key)
{
    return d->stack.empty() ? 0 : d->stack.back().value(key).toLongLong();
}

double KeyedUnarchiver::decodeDoubleForKey(const QString &key)
{
    return d->stack.empty() ? 0.0 : d->stack.back().value(key).toDouble();
}

} // namespace zt

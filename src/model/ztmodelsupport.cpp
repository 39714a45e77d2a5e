#include "model/ztmodelsupport.h"

#include "core/ztabstractipc.h"

#include <QCoreApplication>
#include <QHash>
#include <QReadWriteLock>

#include <atomic>

namespace zt::model {

QVariantList dictionariesOfEntries(const QVariantList &entries)
{
    QVariantList out;
    out.reserve(entries.size());
    for (const QVariant &entry : entries) {
        if (auto *object = dynamic_cast<ZTAbstractIPC *>(zt::objectFrom(entry)))
            out.append(object->dictionary());
        else
            out.append(entry);
    }
    return out;
}

QString localizedString(const char *key)
{
    return QCoreApplication::translate("Zintaro", key);
}

namespace {
struct Transformers
{
    QReadWriteLock lock;
    QHash<QString, ValueTransformer> byName;
};
Transformers &transformers()
{
    static Transformers t;
    return t;
}
} // namespace

void setValueTransformer(const QString &name, ValueTransformer transformer)
{
    Transformers &t = transformers();
    QWriteLocker locker(&t.lock);
    if (transformer)
        t.byName.insert(name, std::move(transformer));
    else
        t.byName.remove(name);
}

QVariant transformedValue(const QString &name, const QVariant &value)
{
    Transformers &t = transformers();
    ValueTransformer transformer;
    {
        QReadLocker locker(&t.lock);
        transformer = t.byName.value(name);
    }
    return transformer ? transformer(value) : QVariant();
}

namespace {
std::atomic<quint64> renames{0};
} // namespace

quint64 nicknameGeneration()
{
    return renames.load(std::memory_order_relaxed);
}

void noteNicknameChange()
{
    renames.fetch_add(1, std::memory_order_relaxed);
}

} // namespace zt::model

#include "core/qksharedobject.h"

#include "runtime/exception.h"

#include <QHash>
#include <QMutex>

ZT_DEFINE_CLASS(QKSharedObject)

zt::Object *QKSharedObject::sharedInstanceOf(const zt::ClassInfo &cls)
{
    // The instances live until the process ends; they are never released.
    static QMutex lock;
    static QHash<QString, zt::Object *> instances;
    QMutexLocker locker(&lock);
    if (zt::Object *o = instances.value(cls.name()))
        return o;
    zt::Ref<zt::Object> created = cls.createInstance();
    ZT_ASSERT(created, QStringLiteral("No shared instance can be made of class %1").arg(cls.name()));
    if (auto *shared = dynamic_cast<QKSharedObject *>(created.get()))
        shared->init();
    zt::Object *o = created.leak();
    instances.insert(cls.name(), o);
    return o;
}

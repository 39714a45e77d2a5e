#include "core/vdkvo.h"

ZT_DEFINE_CLASS_WITH_MEMBERS(VDKVO)

void VDKVO::registerMembers(zt::ClassBuilder<VDKVO> &b)
{
    b.property("observee", &VDKVO::observee, &VDKVO::setObservee);
    b.property("keyPath", &VDKVO::keyPath, &VDKVO::setKeyPath);
}

zt::Ref<VDKVO> VDKVO::observeAtKeyPathOptionsHandler(zt::Object *observee, const QString &keyPath,
                                                     zt::ObservingOptions options, Handler handler)
{
    auto token = zt::make<VDKVO>();
    token->initWithObserveeKeyPathOptionsHandler(observee, keyPath, options, std::move(handler));
    return token;
}

void VDKVO::initWithObserveeKeyPathOptionsHandler(zt::Object *observee, const QString &keyPath,
                                                  zt::ObservingOptions options, Handler handler)
{
    {
        QMutexLocker locker(&m_lock);
        m_observee = observee;
        m_keyPath = keyPath;
        m_handler = std::move(handler);
    }
    if (observee)
        observee->addObserver(this, keyPath, options, nullptr);
}

zt::Object *VDKVO::observee() const
{
    QMutexLocker locker(&m_lock);
    return m_observee;
}

void VDKVO::setObservee(zt::Object *observee)
{
    willChangeValueForKey(QStringLiteral("observee"));
    {
        QMutexLocker locker(&m_lock);
        m_observee = observee;
    }
    didChangeValueForKey(QStringLiteral("observee"));
}

QString VDKVO::keyPath() const
{
    QMutexLocker locker(&m_lock);
    return m_keyPath;
}

void VDKVO::setKeyPath(const QString &keyPath)
{
    willChangeValueForKey(QStringLiteral("keyPath"));
    {
        QMutexLocker locker(&m_lock);
        m_keyPath = keyPath;
    }
    didChangeValueForKey(QStringLiteral("keyPath"));
}

VDKVO::Handler VDKVO::handler() const
{
    QMutexLocker locker(&m_lock);
    return m_handler;
}

void VDKVO::setHandler(Handler handler)
{
    QMutexLocker locker(&m_lock);
    m_handler = std::move(handler);
}

void VDKVO::observeValueForKeyPath(const QString &, zt::Object *object, const zt::KVOChange &change, void *)
{
    const Handler h = handler();
    if (h)
        h(object, change);
}

void VDKVO::dealloc()
{
    zt::Object *observee;
    QString keyPath;
    {
        QMutexLocker locker(&m_lock);
        observee = m_observee;
        keyPath = m_keyPath;
    }
    if (observee)
        observee->removeObserver(this, keyPath);
    {
        QMutexLocker locker(&m_lock);
        m_observee = nullptr;
        m_keyPath.clear();
        m_handler = nullptr;
    }
    super::dealloc();
}

namespace zt {
Ref<VDKVO> observeKeyPathOptionsHandler(Object *receiver, const QString &keyPath, ObservingOptions options,
                                        VDKVO::Handler handler)
{
    return VDKVO::observeAtKeyPathOptionsHandler(receiver, keyPath, options, std::move(handler));
}
} // namespace zt

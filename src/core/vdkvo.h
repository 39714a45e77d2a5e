#pragma once
// VDKVO: an observation held as a token. The observation starts when the
// token is made and ends when the token goes away, so keeping tokens in a set
// and emptying the set ends every observation without bookkeeping.

#include "runtime/object.h"

#include <QMutex>
#include <functional>

class ZT_EXPORT VDKVO : public zt::Object
{
    ZT_OBJECT(VDKVO, zt::Object)
public:
    //! Called on every change: the notifying object and the change record.
    using Handler = std::function<void(zt::Object *observed, const zt::KVOChange &change)>;

    //! A new token observing `observee` at `keyPath`; keep it for as long as
    //! the observation is to last. The observee must outlive the token.
    //! @sel observe:atKeyPath:options:handler:
    static zt::Ref<VDKVO> observeAtKeyPathOptionsHandler(zt::Object *observee, const QString &keyPath,
                                                         zt::ObservingOptions options, Handler handler);

    //! Stores the three values and registers the token as observer, no context.
    //! @sel initWithObservee:keyPath:options:handler:
    void initWithObserveeKeyPathOptionsHandler(zt::Object *observee, const QString &keyPath,
                                               zt::ObservingOptions options, Handler handler);

    //! @sel observee
    zt::Object *observee() const;
    //! @sel setObservee:
    void setObservee(zt::Object *observee);
    //! @sel keyPath
    QString keyPath() const;
    //! @sel setKeyPath:
    void setKeyPath(const QString &keyPath);
    Handler handler() const;
    //! A token without handler stays registered; its notifications do nothing.
    void setHandler(Handler handler);

    //! Passes every notification to the handler; key path and context are not examined.
    void observeValueForKeyPath(const QString &keyPath, zt::Object *object, const zt::KVOChange &change,
                                void *context) override;

protected:
    void dealloc() override;

private:
    mutable QMutex m_lock; // the accessors are atomic
    zt::Object *m_observee = nullptr;
    QString m_keyPath;
    Handler m_handler;
};

namespace zt {
//! The root-object extension: a token observing `receiver` at `keyPath`.
//! @sel observeKeyPath:options:handler:
ZT_EXPORT Ref<VDKVO> observeKeyPathOptionsHandler(Object *receiver, const QString &keyPath,
                                                  ObservingOptions options, VDKVO::Handler handler);
} // namespace zt

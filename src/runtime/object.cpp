#include "runtime/object.h"

#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/invocation.h"
#include "runtime/observation_p.h"

#include <climits>

namespace zt {

namespace {
// While an object is being torn down its count sits far from zero, so that
// references taken and dropped by the teardown itself cannot free it twice.
constexpr int DeallocatingCount = INT_MIN / 2;
} // namespace

const ClassInfo &Object::staticClassInfo()
{
    static const ClassInfo info("NSObject", nullptr, ClassInfo::factoryFor<Object>(), [](ClassInfo &i) {
        ClassBuilder<Object> b(i);
        b.method("description", &Object::description);
        b.method("className", &Object::className);
    });
    return info;
}
[[maybe_unused]] static const ClassInfo &zt_classinfo_Object = Object::staticClassInfo();

void retainObject(const Object *object) noexcept
{
    object->retain();
}

void releaseObject(const Object *object) noexcept
{
    object->release();
}

bool tryRetainObject(const Object *object) noexcept
{
    return object->tryRetain();
}

Object::Object() = default;

Object::~Object()
{
    if (m_observation)
        m_observation->objectDestroyed(this);
}

void Object::release() const noexcept
{
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    auto *self = const_cast<Object *>(this);
    self->m_refs.store(DeallocatingCount, std::memory_order_relaxed);
    try {
        self->dealloc();
    } catch (const std::exception &e) {
        qCritical("exception during teardown of %s: %s", qPrintable(className()), e.what());
    }
    delete self;
}

void Object::dealloc() {}

QString Object::description() const
{
    return format(u"<%@: %p>", className(), static_cast<const void *>(this));
}

MethodSignature Object::methodSignatureForSelector(const Selector &selector) const
{
    if (const MethodEntry *e = classInfo().instanceMethod(selector))
        return e->signature;
    return {};
}

bool Object::respondsToSelector(const Selector &selector) const
{
    return classInfo().instanceMethod(selector) != nullptr;
}

void Object::forwardInvocation(Invocation &invocation)
{
    doesNotRecognizeSelector(invocation.selector());
}

void Object::doesNotRecognizeSelector(const Selector &selector) const
{
    invalidArgument(format(u"-[%@ %s]: unrecognized selector sent to instance %p", className(), selector,
                           static_cast<const void *>(this)));
}

QVariant Object::perform(const Selector &selector, const QVariantList &arguments)
{
    return perform(selector, std::span<const QVariant>(arguments.constData(), size_t(arguments.size())));
}

QVariant Object::perform(const Selector &selector, std::span<const QVariant> arguments)
{
    if (const MethodEntry *e = classInfo().instanceMethod(selector)) {
        // Fast path: a method of the class itself.
        const qsizetype n = e->signature.numberOfArguments() - 2;
        if (qsizetype(arguments.size()) != n)
            invalidArgument(format(u"-[%@ %s]: called with %ld arguments, expected %ld", className(),
                                   selector, qint64(arguments.size()), qint64(n)));
        QVarLengthArray<QVariant, 6> args(n);
        for (qsizetype i = 0; i < n; ++i)
            args[i] = coerceToTypeCode(arguments[size_t(i)], e->signature.argumentTypeAt(i + 2));
        return e->call(this, args.constData());
    }
    const MethodSignature signature = methodSignatureForSelector(selector);
    if (!signature.isValid())
        doesNotRecognizeSelector(selector);
    if (qsizetype(arguments.size()) != signature.numberOfArguments() - 2)
        invalidArgument(format(u"-[%@ %s]: called with %ld arguments, expected %ld", className(), selector,
                               qint64(arguments.size()), qint64(signature.numberOfArguments() - 2)));
    Invocation invocation(signature);
    invocation.setSelector(selector);
    invocation.setTarget(this);
    for (qsizetype i = 0; i < qsizetype(arguments.size()); ++i)
        invocation.setArgumentAtIndex(arguments[size_t(i)], i + 2);
    forwardInvocation(invocation);
    return invocation.returnValue();
}

} // namespace zt

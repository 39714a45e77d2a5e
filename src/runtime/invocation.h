#pragma once
// Invocation: one message as an object — selector, target, arguments and
// return value, shaped by a method signature. Argument positions follow the
// signature: 0 the target, 1 the selector, real arguments from 2.

#include "runtime/object.h"
#include "runtime/signature.h"

#include <QVarLengthArray>

namespace zt {

class ZT_EXPORT Invocation
{
public:
    explicit Invocation(MethodSignature signature);

    const MethodSignature &methodSignature() const { return m_signature; }
    const Selector &selector() const { return m_selector; }
    void setSelector(Selector selector) { m_selector = std::move(selector); }
    Object *target() const { return m_target.get(); }
    void setTarget(Object *target) { m_target = target; }

    //! Argument at position `index` (2 … numberOfArguments-1).
    const QVariant &argumentAtIndex(qsizetype index) const;
    //! Stores `value` coerced to the code at `index`; positions 0 and 1 and
    //! positions past the signature raise NSInvalidArgumentException.
    void setArgumentAtIndex(const QVariant &value, qsizetype index);
    //! The argument at `index` for a decoder to build in place (same bounds as
    //! setArgumentAtIndex). It starts nil; the decoder leaves in it a value
    //! already coerced to the argument's type code.
    QVariant &argumentSlotAtIndex(qsizetype index);
    //! The real arguments, in order.
    QVariantList arguments() const;
    //! The same message under `signature`: the selector and as many of the
    //! arguments as both signatures have, each coerced to its new type code.
    //! The target and the return value are not carried over.
    Invocation reshaped(const MethodSignature &signature) const;
    const QVariant *argumentData() const { return m_arguments.constData(); }

    const QVariant &returnValue() const { return m_return; }
    void setReturnValue(QVariant value) { m_return = std::move(value); }

    //! Sends the message to the target: the class table's method when there
    //! is one, else the target's forwardInvocation().
    void invoke();
    void invokeWithTarget(Object *target);

private:
    MethodSignature m_signature;
    Selector m_selector;
    Ref<Object> m_target;
    QVarLengthArray<QVariant, 6> m_arguments;
    QVariant m_return;
};

} // namespace zt

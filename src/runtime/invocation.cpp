#include "runtime/invocation.h"

#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/variant_inplace_p.h"

#include <algorithm>

namespace zt {

Invocation::Invocation(MethodSignature signature) : m_signature(std::move(signature))
{
    m_arguments.resize(std::max<qsizetype>(0, m_signature.numberOfArguments() - 2));
}

const QVariant &Invocation::argumentAtIndex(qsizetype index) const
{
    if (index < 2 || index - 2 >= m_arguments.size())
        invalidArgument(format(u"-[NSInvocation getArgument:atIndex:]: index (%ld) out of bounds [-1, %ld]",
                               index, m_signature.numberOfArguments() - 1));
    return m_arguments[index - 2];
}

void Invocation::setArgumentAtIndex(const QVariant &value, qsizetype index)
{
    if (index < 2 || index - 2 >= m_arguments.size())
        invalidArgument(format(u"-[NSInvocation setArgument:atIndex:]: index (%ld) out of bounds [-1, %ld]",
                               index, m_signature.numberOfArguments() - 1));
    QVariant &slot = m_arguments[index - 2];
    detail::replaceWith(slot, value);
    if (m_signature.argumentCodeAt(index) != '@') // objects pass unchanged
        coerceToTypeCodeInPlace(slot, m_signature.argumentTypeAt(index));
}

QVariant &Invocation::argumentSlotAtIndex(qsizetype index)
{
    if (index < 2 || index - 2 >= m_arguments.size())
        invalidArgument(format(u"-[NSInvocation setArgument:atIndex:]: index (%ld) out of bounds [-1, %ld]",
                               index, m_signature.numberOfArguments() - 1));
    return m_arguments[index - 2];
}

QVariantList Invocation::arguments() const
{
    return QVariantList(m_arguments.cbegin(), m_arguments.cend());
}

Invocation Invocation::reshaped(const MethodSignature &signature) const
{
    Invocation result(signature);
    result.setSelector(m_selector);
    const qsizetype n = std::min(signature.numberOfArguments(), m_signature.numberOfArguments());
    for (qsizetype i = 2; i < n; ++i)
        result.setArgumentAtIndex(argumentAtIndex(i), i);
    return result;
}

void Invocation::invoke()
{
    invokeWithTarget(m_target.get());
}

void Invocation::invokeWithTarget(Object *target)
{
    if (!target)
        return; // a message to nothing does nothing
    if (const MethodEntry *entry = target->classInfo().instanceMethod(m_selector)) {
        QVariant result = entry->call(target, m_arguments.constData());
        m_return = std::move(result);
        return;
    }
    target->forwardInvocation(*this);
}

} // namespace zt

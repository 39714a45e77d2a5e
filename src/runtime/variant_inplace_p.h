#pragma once
// Building a QVariant where it is going to stay. Qt's QVariant move
// constructor, assignment and clear() (as Debian's GCC build compiles them)
// store the object in 8-byte halves and at once reload it in 16 bytes, which
// defeats store forwarding and costs about a dozen cycles per value; a
// temporary variant moved into place pays that twice. Hot paths (decoders,
// invocation arguments) therefore construct over a nil variant instead.

#include <QVariant>
#include <new>

namespace zt::detail {

//! Copies `value` into `out`, which must be nil: a nil variant owns nothing,
//! so it is built over rather than assigned to.
inline void copyInto(QVariant &out, const QVariant &value)
{
    Q_ASSERT(!out.isValid());
    new (&out) QVariant(value);
}

//! Replaces whatever `out` holds with a copy of `value`. Copying a variant
//! usually shares its data, but a value held inside the variant is copied by
//! its type's copy constructor, which may throw (a type that owns heap
//! memory). Then `out` is left nil, never destroyed a second time.
inline void replaceWith(QVariant &out, const QVariant &value)
{
    if (&out == &value)
        return;
    out.~QVariant();
    try {
        new (&out) QVariant(value);
    } catch (...) {
        new (&out) QVariant();
        throw;
    }
}

//! Makes the nil `out` hold a default T and answers it, to be filled in place.
template<typename T> T &emplaceIn(QVariant &out)
{
    static_assert(QVariant::Private::CanUseInternalSpace<T>, "held in place, never shared");
    static const QVariant prototype = QVariant::fromValue(T());
    copyInto(out, prototype);
    return *static_cast<T *>(const_cast<void *>(out.constData()));
}

} // namespace zt::detail

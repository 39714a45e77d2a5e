#pragma once
// Ref<T>: an owning, intrusive reference to an Object (retain on copy,
// release on destruction). A plain T* is a non-owning (weak) reference; the
// owner of such a pointer is responsible for clearing it.

#include <compare>
#include <cstddef>
#include <utility>

#include "zt_export.h"

namespace zt {

class Object;
// The reference count lives in Object; these keep Ref<T> usable where Object
// is only declared (metatype registration instantiates copies early).
ZT_EXPORT void retainObject(const Object *object) noexcept;
ZT_EXPORT void releaseObject(const Object *object) noexcept;
ZT_EXPORT bool tryRetainObject(const Object *object) noexcept;

template<typename T> class Ref
{
public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    //! Retains `p`.
    Ref(T *p) noexcept : m_ptr(p)
    {
        if (m_ptr)
            retainObject(m_ptr);
    }
    Ref(const Ref &other) noexcept : Ref(other.m_ptr) {}
    Ref(Ref &&other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    template<typename U> Ref(const Ref<U> &other) noexcept : Ref(static_cast<T *>(other.get())) {}
    template<typename U> Ref(Ref<U> &&other) noexcept : m_ptr(other.leak()) {}
    ~Ref()
    {
        if (m_ptr)
            releaseObject(m_ptr);
    }

    Ref &operator=(Ref other) noexcept
    {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }

    //! Takes over a reference that the caller already holds (a new object).
    static Ref adopt(T *p) noexcept
    {
        Ref r;
        r.m_ptr = p;
        return r;
    }
    //! A reference to `p` unless it is already being released or torn down
    //! (Object::tryRetain): then null.
    static Ref tryRetain(T *p) noexcept
    {
        Ref r;
        if (p && tryRetainObject(p))
            r.m_ptr = p;
        return r;
    }
    //! Gives up ownership without releasing.
    T *leak() noexcept { return std::exchange(m_ptr, nullptr); }

    T *get() const noexcept { return m_ptr; }
    T *operator->() const noexcept { return m_ptr; }
    T &operator*() const noexcept { return *m_ptr; }
    explicit operator bool() const noexcept { return m_ptr != nullptr; }
    //! Only from a reference that outlives the expression: a pointer taken
    //! from a temporary would dangle once the temporary releases its object.
    operator T *() const &noexcept { return m_ptr; }
    operator T *() const && = delete;

    void reset() noexcept { Ref().swap(*this); }
    void swap(Ref &other) noexcept { std::swap(m_ptr, other.m_ptr); }

    friend bool operator==(const Ref &a, const Ref &b) noexcept { return a.m_ptr == b.m_ptr; }
    friend bool operator==(const Ref &a, std::nullptr_t) noexcept { return a.m_ptr == nullptr; }

private:
    T *m_ptr = nullptr;
};

//! Creates a T with `new` and adopts its first reference.
template<typename T, typename... Args> Ref<T> make(Args &&...args)
{
    return Ref<T>::adopt(new T(std::forward<Args>(args)...));
}

//! Downcast; null when the object is not a T.
template<typename T, typename U> Ref<T> dynamicCast(const Ref<U> &r)
{
    return Ref<T>(dynamic_cast<T *>(r.get()));
}

} // namespace zt

#pragma once
// QKSharedObject: one instance per class for the life of the process, kept in
// a process-wide table under the class's name and made with the class's plain
// constructor on first request.

#include "runtime/object.h"

class ZT_EXPORT QKSharedObject : public zt::Object
{
    ZT_OBJECT(QKSharedObject, zt::Object)
public:
    //! The shared instance of `cls` (which must be a concrete subclass).
    static zt::Object *sharedInstanceOf(const zt::ClassInfo &cls);

    //! The shared instance of T.
    template<typename T> static T *sharedInstance()
    {
        return static_cast<T *>(sharedInstanceOf(T::staticClassInfo()));
    }

    //! Called once on the new shared instance, before anyone sees it.
    virtual void init() {}
};

#pragma once
// VDModelBridge: what a connection asks of the object model above it. The
// transport knows nothing of model objects; the mirroring core implements
// this interface and hands it to each connection (VDConnection::setModelBridge).

#include "runtime/invocation.h"

class ZT_EXPORT VDModelBridge
{
public:
    virtual ~VDModelBridge();
    //! The signature of a forwarded model call that this process sends
    //! ("<prefix>_<class>_<UUID>_<selector>"), or an invalid one for any other
    //! selector. The bridge logs why a forwarded name has no signature; the
    //! caller then logs "ERROR No method signature for %@".
    virtual zt::MethodSignature signatureForForwardedSelector(const zt::Selector &selector) const = 0;
    //! Whether an object ("@") argument may cross the process boundary. Values
    //! it refuses raise "Unknown object type" while encoding.
    virtual bool canWireValue(const QVariant &value) const = 0;
};

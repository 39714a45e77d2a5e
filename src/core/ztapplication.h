#pragma once
// The application object's delegate, as the mirroring core sees it: each
// process's application exposes the remote root (an object that accepts the
// invocations meant for the other process's root object) as its counterpart,
// and a client also names itself with a client ID. The proxy asks for both at
// the moment of each call, so a connection can come and go.

#include "runtime/object.h"

class ZTAbstractIPC;

class ZT_EXPORT ZTApplicationDelegate
{
public:
    virtual ~ZTApplicationDelegate();
    //! The remote root, or null while there is no connection (sends are then lost).
    virtual zt::Object *counterpart() const = 0;
    //! The value naming this client to the agent; nil in the agent.
    virtual QVariant clientID() const { return {}; }
    //! Sends a forwarded model call: `invocation` carries its forwarded name,
    //! `object` is the model object it names, `selector` the call's own. The
    //! default runs it on counterpart() (whose look-up finds the object by
    //! name again); a host or node writes it straight to its connections.
    virtual void sendForwardedInvocation(zt::Invocation &invocation, const ZTAbstractIPC *object,
                                         const zt::Selector &selector);
};

class ZT_EXPORT ZTApplication
{
public:
    //! Not owned; the application keeps it alive while it is set.
    static void setDelegate(ZTApplicationDelegate *delegate);
    static ZTApplicationDelegate *delegate();
};

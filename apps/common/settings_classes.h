#pragma once
// The agent's and the client's advanced settings, proxies, bans and
// transfers.
//
// Advanced settings send their changes from both processes. What is applied
// from the other process or from a dictionary form is not sent back
// (isApplyingOtherProcessChange), which breaks the echo between the two
// sides; what the application sets, by a setter or by key-value coding,
// crosses. The defaults init() sets are not sent either: a mirror's
// defaults, arriving after the original's later changes, would overwrite
// them.
//
// The agent's transfer records each operation in its attributes under
// "state" ("accepted", "resuming", "rejected", "cancelled", "removed"), the
// stand-in for the engine that performs them.

#include "model/ztsettings.h"

#include <QScopedValueRollback>

template<typename Base> class EchoFreeSettings : public Base
{
public:
    bool enableInterProcessKVO() const override
    {
        return !m_initialising && !this->isApplyingOtherProcessChange() && Base::enableInterProcessKVO();
    }
    void init() override
    {
        QScopedValueRollback<bool> quiet(m_initialising, true);
        Base::init();
    }

private:
    bool m_initialising = false;
};

class AgentAdvancedSettings : public EchoFreeSettings<ZTAbstractAdvancedSettings>
{
    ZT_OBJECT(AgentAdvancedSettings, ZTAbstractAdvancedSettings)
};

class ClientAdvancedSettings : public EchoFreeSettings<ZTAbstractAdvancedSettings>
{
    ZT_OBJECT(ClientAdvancedSettings, ZTAbstractAdvancedSettings)
};

class AgentProxy : public ZTAbstractProxy
{
    ZT_OBJECT(AgentProxy, ZTAbstractProxy)
};

class ClientProxy : public ZTAbstractProxy
{
    ZT_OBJECT(ClientProxy, ZTAbstractProxy)
};

class AgentBan : public ZTAbstractBan
{
    ZT_OBJECT(AgentBan, ZTAbstractBan)
};

class ClientBan : public ZTAbstractBan
{
    ZT_OBJECT(ClientBan, ZTAbstractBan)
};

class AgentTransfer : public ZTAbstractTransfer
{
    ZT_OBJECT(AgentTransfer, ZTAbstractTransfer)
public:
    void accept() override { setState(QStringLiteral("accepted")); }
    void acceptByResumingIfPossible(bool resume) override
    {
        setState(resume ? QStringLiteral("resuming") : QStringLiteral("accepted"));
    }
    void reject() override { setState(QStringLiteral("rejected")); }
    void cancel() override { setState(QStringLiteral("cancelled")); }
    void remove() override { setState(QStringLiteral("removed")); }

private:
    void setState(const QString &state);
};

class ClientTransfer : public ZTAbstractTransfer
{
    ZT_OBJECT(ClientTransfer, ZTAbstractTransfer)
};

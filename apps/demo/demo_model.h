#pragma once
// The demo's model: a connection with a status and an ordered list of
// channels, each with a name and a topic. The Demo… classes play the
// framework's abstract model classes; each process has concrete subclasses.

#include "core/ztagenthost.h"
#include "core/ztclientnode.h"
#include "runtime/members.h"

class DemoChannel : public ZTAbstractIPC
{
    ZT_OBJECT(DemoChannel, ZTAbstractIPC)
public:
    ZT_PROPERTY(QString, name, setName, zt::InDictionary::Always)
    ZT_PROPERTY(QString, topic, setTopic, zt::InDictionary::Always)
};

class DemoConnection : public ZTAbstractIPC
{
    ZT_OBJECT(DemoConnection, ZTAbstractIPC)
public:
    ZT_PROPERTY(qint64, status, setStatus, zt::InDictionary::Always)
    ZT_WIRED_TO_MANY(DemoChannel, channels, Channels, channelDictionaries, ChannelDictionaries)
    virtual std::optional<QList<zt::Ref<DemoChannel>>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries);

    //! Actions the client sends to the agent.
    void processOutgoingLine(const QString &line);
    ZT_ACTION("processOutgoingLine:", processOutgoingLine)
    QString channelList() const;
    ZT_ACTION("channelList", channelList)

    void init() override;
    //! Channels that leave the list leave the directory.
    void willChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                         const QString &key) override;
    void didChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                        const QString &key) override;
    QString replacementKeyForWiring(const QString &key) const override;
    void nilify() override;
    //! The owner's end of the model: the channels, then the connection leave the directory.
    void invalidateTree();

    std::function<void(const QString &)> onOutgoingLine;

private:
    QList<zt::Ref<DemoChannel>> m_departing;
};

class AgentChannel : public DemoChannel
{
    ZT_OBJECT(AgentChannel, DemoChannel)
};
class AgentConnection : public DemoConnection
{
    ZT_OBJECT(AgentConnection, DemoConnection)
};
class ClientChannel : public DemoChannel
{
    ZT_OBJECT(ClientChannel, DemoChannel)
};
class ClientConnection : public DemoConnection
{
    ZT_OBJECT(ClientConnection, DemoConnection)
public:
    std::optional<QList<zt::Ref<DemoChannel>>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries) override;
};

const zt::Protocol &demoClientRootProtocol();

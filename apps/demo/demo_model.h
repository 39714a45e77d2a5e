#pragma once
// The demo's model: a connection with a status and an ordered list of
// channels, each with a name and a topic. The Demo… classes play the
// framework's abstract model classes; each process has concrete subclasses.

#include "core/ztagenthost.h"
#include "core/ztclientnode.h"

class DemoChannel : public ZTAbstractIPC
{
    ZT_OBJECT(DemoChannel, ZTAbstractIPC)
public:
    QString name() const { return m_name; }
    void setName(const QString &v) { setAndNotify(m_name, v, QStringLiteral("name")); }
    QString topic() const { return m_topic; }
    void setTopic(const QString &v) { setAndNotify(m_topic, v, QStringLiteral("topic")); }
    QVariantMap dictionary() const override;

private:
    QString m_name, m_topic;
};

class DemoConnection : public ZTAbstractIPC
{
    ZT_OBJECT(DemoConnection, ZTAbstractIPC)
public:
    qint64 status() const { return m_status; }
    void setStatus(qint64 v) { setAndNotify(m_status, v, QStringLiteral("status")); }
    QList<zt::Ref<DemoChannel>> channels() const { return m_channels; }
    void insertChannelsAtIndexes(const QList<zt::Ref<DemoChannel>> &list, const zt::IndexSet &indexes);
    void removeChannelsAtIndexes(const zt::IndexSet &indexes);

    QVariantList channelDictionaries() const;
    void insertChannelDictionariesAtIndexes(const QVariantList &dictionaries, const zt::IndexSet &indexes);
    void removeChannelDictionariesAtIndexes(const zt::IndexSet &indexes);
    virtual QList<zt::Ref<DemoChannel>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries);

    //! Actions the client sends to the agent.
    void processOutgoingLine(const QString &line);
    QString channelList() const;

    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
    void nilify() override { m_channels.clear(); }
    //! The owner's end of the model: the channels, then the connection leave the directory.
    void invalidateTree();

    std::function<void(const QString &)> onOutgoingLine;

private:
    qint64 m_status = 3;
    QList<zt::Ref<DemoChannel>> m_channels;
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
    QList<zt::Ref<DemoChannel>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries) override;
};

const zt::Protocol &demoClientRootProtocol();

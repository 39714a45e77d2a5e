#include "demo_model.h"

ZT_DEFINE_CLASS(DemoChannel)
ZT_DEFINE_CLASS(DemoConnection)
ZT_DEFINE_CLASS(AgentChannel)
ZT_DEFINE_CLASS(AgentConnection)
ZT_DEFINE_CLASS(ClientChannel)
ZT_DEFINE_CLASS(ClientConnection)

void DemoConnection::init()
{
    super::init();
    setStatus(3);
}

std::optional<QList<zt::Ref<DemoChannel>>>
DemoConnection::replacementObjectsForChannelDictionaries(const QVariantList &)
{
    return std::nullopt;
}

void DemoConnection::willChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                                     const QString &key)
{
    if (kind == zt::KeyValueChange::Removal && key == u"channels")
        for (quint64 i : indexes)
            if (i < quint64(m_channels.size()))
                m_departing.append(m_channels[qsizetype(i)]);
    super::willChangeValuesAtIndexesForKey(kind, indexes, key);
}

void DemoConnection::didChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                                    const QString &key)
{
    super::didChangeValuesAtIndexesForKey(kind, indexes, key);
    for (const auto &channel : std::exchange(m_departing, {}))
        channel->invalidate();
}

void DemoConnection::processOutgoingLine(const QString &line)
{
    if (onOutgoingLine)
        onOutgoingLine(line);
}

QString DemoConnection::channelList() const
{
    QStringList names;
    for (const auto &c : channels())
        names.append(c->name());
    return names.join(QStringLiteral(", "));
}

void DemoConnection::nilify()
{
    m_channels.clear();
}

void DemoConnection::invalidateTree()
{
    for (const auto &c : channels())
        c->invalidate();
    invalidate();
}

QString DemoConnection::replacementKeyForWiring(const QString &key) const
{
    return key == u"channels" ? QStringLiteral("channelDictionaries") : super::replacementKeyForWiring(key);
}

std::optional<QList<zt::Ref<DemoChannel>>>
ClientConnection::replacementObjectsForChannelDictionaries(const QVariantList &dictionaries)
{
    QList<zt::Ref<DemoChannel>> out;
    for (const QVariant &v : dictionaries) {
        const QVariantMap d = v.toMap();
        auto channel = zt::dynamicCast<DemoChannel>(ZTAbstractIPC::createCounterpartWithUUID<ClientChannel>(
            d.value(QStringLiteral("description")).toString()));
        if (!channel)
            continue;
        channel->setName(d.value(QStringLiteral("name")).toString());
        channel->setTopic(d.value(QStringLiteral("topic")).toString());
        out.append(channel);
    }
    return out;
}

const zt::Protocol &demoClientRootProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p = ZTRootObject::clientRootProtocol();
        p.addMethod("agentFinished", zt::MethodSignature::fromTypes("v@:"));
        return p;
    }();
    return protocol;
}

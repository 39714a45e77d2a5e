#include "demo_model.h"

#include "runtime/kvc.h"

ZT_DEFINE_CLASS_WITH_MEMBERS(DemoChannel)
void DemoChannel::registerMembers(zt::ClassBuilder<DemoChannel> &b)
{
    b.property("name", &DemoChannel::name, &DemoChannel::setName);
    b.property("topic", &DemoChannel::topic, &DemoChannel::setTopic);
}

ZT_DEFINE_CLASS_WITH_MEMBERS(DemoConnection)
void DemoConnection::registerMembers(zt::ClassBuilder<DemoConnection> &b)
{
    b.property("status", &DemoConnection::status, &DemoConnection::setStatus);
    b.method("channels", &DemoConnection::channels);
    b.method("insertChannels:atIndexes:", &DemoConnection::insertChannelsAtIndexes);
    b.method("removeChannelsAtIndexes:", &DemoConnection::removeChannelsAtIndexes);
    b.method("channelDictionaries", &DemoConnection::channelDictionaries);
    b.method("insertChannelDictionaries:atIndexes:", &DemoConnection::insertChannelDictionariesAtIndexes);
    b.method("removeChannelDictionariesAtIndexes:", &DemoConnection::removeChannelDictionariesAtIndexes);
    b.action("processOutgoingLine:", &DemoConnection::processOutgoingLine);
    b.action("channelList", &DemoConnection::channelList);
}

ZT_DEFINE_CLASS(AgentChannel)
ZT_DEFINE_CLASS(AgentConnection)
ZT_DEFINE_CLASS(ClientChannel)
ZT_DEFINE_CLASS(ClientConnection)

QVariantMap DemoChannel::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("name"), m_name);
    d.insert(QStringLiteral("topic"), m_topic);
    return d;
}

void DemoConnection::insertChannelsAtIndexes(const QList<zt::Ref<DemoChannel>> &list,
                                             const zt::IndexSet &indexes)
{
    qsizetype k = 0;
    for (quint64 i : indexes)
        m_channels.insert(qsizetype(i), list[k++]);
}

void DemoConnection::removeChannelsAtIndexes(const zt::IndexSet &indexes)
{
    for (auto r = indexes.ranges().rbegin(); r != indexes.ranges().rend(); ++r)
        m_channels.remove(qsizetype(r->location), qsizetype(r->length));
}

QVariantList DemoConnection::channelDictionaries() const
{
    QVariantList list;
    for (const auto &c : m_channels)
        list.append(c->dictionary());
    return list;
}

void DemoConnection::insertChannelDictionariesAtIndexes(const QVariantList &dictionaries,
                                                        const zt::IndexSet &indexes)
{
    mutableArrayValueForKey(QStringLiteral("channels"))
        .insertObjectsAtIndexes(zt::toValue(replacementObjectsForChannelDictionaries(dictionaries)).toList(),
                                indexes);
}

void DemoConnection::removeChannelDictionariesAtIndexes(const zt::IndexSet &indexes)
{
    QList<zt::Ref<DemoChannel>> departed;
    for (quint64 i : indexes)
        if (i < quint64(m_channels.size()))
            departed.append(m_channels[qsizetype(i)]);
    mutableArrayValueForKey(QStringLiteral("channels")).removeObjectsAtIndexes(indexes);
    for (const auto &c : departed)
        c->invalidate();
}

QList<zt::Ref<DemoChannel>> DemoConnection::replacementObjectsForChannelDictionaries(const QVariantList &)
{
    return {};
}

void DemoConnection::processOutgoingLine(const QString &line)
{
    if (onOutgoingLine)
        onOutgoingLine(line);
}

QString DemoConnection::channelList() const
{
    QStringList names;
    for (const auto &c : m_channels)
        names.append(c->name());
    return names.join(QStringLiteral(", "));
}

void DemoConnection::invalidateTree()
{
    for (const auto &c : m_channels)
        c->invalidate();
    invalidate();
}

QVariantMap DemoConnection::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("status"), m_status);
    return d;
}

QString DemoConnection::replacementKeyForWiring(const QString &key) const
{
    return key == u"channels" ? QStringLiteral("channelDictionaries") : super::replacementKeyForWiring(key);
}

QList<zt::Ref<DemoChannel>>
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

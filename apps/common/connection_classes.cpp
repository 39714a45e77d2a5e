#include "connection_classes.h"

#include "dictionary_objects.h"
#include "model/ztmodelsupport.h"

ZT_DEFINE_CLASS(AgentConnection)
ZT_DEFINE_CLASS(ClientConnection)

namespace chatapps {

QList<zt::Ref<ZTAbstractPerson>> personsWithName(const ZTAbstractConnection &connection, const QString &name)
{
    QList<zt::Ref<ZTAbstractPerson>> found;
    for (const auto &channel : connection.channels())
        if (zt::Ref<ZTAbstractPerson> person = channel->personWithName(name))
            found.append(person);
    return found;
}

} // namespace chatapps

namespace {

template<typename C>
std::optional<QList<zt::Ref<ZTAbstractChannel>>> channelsFor(ZTAbstractConnection *connection,
                                                             const QVariantList &dictionaries)
{
    QList<zt::Ref<ZTAbstractChannel>> channels;
    channels.reserve(dictionaries.size());
    for (const QVariant &dictionary : dictionaries) {
        zt::Ref<C> channel = chatapps::channelFromDictionary<C>(dictionary, connection);
        if (!channel)
            return std::nullopt;
        channels.append(channel);
    }
    return channels;
}

template<typename C> void adoptConsole(ZTAbstractConnection *connection, const QVariant &dictionary)
{
    if (zt::isNilOrNull(dictionary)) {
        connection->setConsole({});
        return;
    }
    if (zt::Ref<C> console = chatapps::channelFromDictionary<C>(dictionary, connection))
        connection->setConsole(console);
}

template<typename I> zt::Ref<ZTAbstractSelfIdentity> identityFor(const QVariant &dictionary)
{
    if (zt::isNilOrNull(dictionary))
        return {};
    return peopleapps::objectFromDictionary<I>(dictionary);
}

template<typename C, typename A> zt::Ref<A> objectFor(const QVariant &dictionary)
{
    if (zt::isNilOrNull(dictionary))
        return {};
    return zt::apps::objectFromDictionary<C, A>(dictionary.toMap());
}

} // namespace

// ---- agent ----

std::optional<QList<zt::Ref<ZTAbstractTransfer>>>
AgentConnection::replacementObjectsForTransferDictionaries(const QVariantList &dictionaries)
{
    return zt::apps::objectsFromDictionaries<AgentTransfer, ZTAbstractTransfer>(dictionaries);
}

void AgentConnection::setAdvancedSettingsDictionary(const QVariant &dictionary)
{
    setAdvancedSettings(objectFor<AgentAdvancedSettings, ZTAbstractAdvancedSettings>(dictionary));
}

void AgentConnection::setProxyDictionary(const QVariant &dictionary)
{
    setProxy(objectFor<AgentProxy, ZTAbstractProxy>(dictionary));
}

void AgentConnection::setServerDictionary(const QVariant &dictionary)
{
    ZTAbstractConnection::setServerDictionary(dictionary);
    setServer(objectFor<AgentServer, ZTAbstractServer>(dictionary));
}

std::optional<QList<zt::Ref<ZTAbstractChannel>>>
AgentConnection::replacementObjectsForChannelDictionaries(const QVariantList &dictionaries)
{
    return channelsFor<AgentChannel>(this, dictionaries);
}

std::optional<QVariantList>
AgentConnection::replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries)
{
    return dictionaries;
}

void AgentConnection::setConsoleDictionary(const QVariant &dictionary)
{
    adoptConsole<AgentChannel>(this, dictionary);
}

void AgentConnection::setCurrentIdentityDictionary(const QVariant &dictionary)
{
    setCurrentIdentity(identityFor<AgentSelfIdentity>(dictionary));
}

void AgentConnection::setNextIdentityDictionary(const QVariant &dictionary)
{
    setNextIdentity(identityFor<AgentSelfIdentity>(dictionary));
}

QList<zt::Ref<ZTAbstractPerson>> AgentConnection::personsWithName(const QString &name) const
{
    return chatapps::personsWithName(*this, name);
}

void AgentConnection::processOutgoingLine(const QString &line)
{
    m_outgoingLines.append(line);
}

void AgentConnection::writeString(const QString &line)
{
    m_writtenStrings.append(line);
}

void AgentConnection::connect()
{
    if (nextIdentity())
        setCurrentIdentity(nextIdentity());
}

void AgentConnection::quit()
{
    writeString(QStringLiteral("QUIT"));
}

void AgentConnection::disconnectWithReason(const QString &reason)
{
    writeString(QStringLiteral("QUIT :%1").arg(reason));
}

// ---- client ----

void ClientConnection::init()
{
    super::init();
    addObservationToken(VDKVO::observeAtKeyPathOptionsHandler(
        this, QStringLiteral("transfers"), zt::ObservingOption::Old,
        [this](zt::Object *, const zt::KVOChange &change) {
            for (const auto &transfer : zt::model::departedObjects(change, transfers()))
                transfer->invalidate();
        }));
}

std::optional<QList<zt::Ref<ZTAbstractTransfer>>>
ClientConnection::replacementObjectsForTransferDictionaries(const QVariantList &dictionaries)
{
    return zt::apps::objectsFromDictionaries<ClientTransfer, ZTAbstractTransfer>(dictionaries);
}

void ClientConnection::setAdvancedSettingsDictionary(const QVariant &dictionary)
{
    setAdvancedSettings(objectFor<ClientAdvancedSettings, ZTAbstractAdvancedSettings>(dictionary));
}

void ClientConnection::setProxyDictionary(const QVariant &dictionary)
{
    setProxy(objectFor<ClientProxy, ZTAbstractProxy>(dictionary));
}

void ClientConnection::setServerDictionary(const QVariant &dictionary)
{
    ZTAbstractConnection::setServerDictionary(dictionary);
    setServer(objectFor<ClientServer, ZTAbstractServer>(dictionary));
}

std::optional<QList<zt::Ref<ZTAbstractChannel>>>
ClientConnection::replacementObjectsForChannelDictionaries(const QVariantList &dictionaries)
{
    return channelsFor<ClientChannel>(this, dictionaries);
}

std::optional<QVariantList>
ClientConnection::replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries)
{
    return dictionaries;
}

void ClientConnection::setConsoleDictionary(const QVariant &dictionary)
{
    adoptConsole<ClientChannel>(this, dictionary);
}

void ClientConnection::setCurrentIdentityDictionary(const QVariant &dictionary)
{
    setCurrentIdentity(identityFor<ClientSelfIdentity>(dictionary));
}

void ClientConnection::setNextIdentityDictionary(const QVariant &dictionary)
{
    setNextIdentity(identityFor<ClientSelfIdentity>(dictionary));
}

QList<zt::Ref<ZTAbstractPerson>> ClientConnection::personsWithName(const QString &name) const
{
    return chatapps::personsWithName(*this, name);
}

void ClientConnection::connect()
{
    chatapps::forwardToCounterpart(this, "connect");
}

void ClientConnection::quit()
{
    chatapps::forwardToCounterpart(this, "quit");
}

void ClientConnection::disconnectWithReason(const QString &reason)
{
    chatapps::forwardToCounterpart(this, "disconnectWithReason:", {reason});
}

void ClientConnection::switchToAvailable()
{
    chatapps::forwardToCounterpart(this, "switchToAvailable");
}

void ClientConnection::switchToAway()
{
    chatapps::forwardToCounterpart(this, "switchToAway");
}

void ClientConnection::switchToOffline()
{
    chatapps::forwardToCounterpart(this, "switchToOffline");
}

void ClientConnection::processOutgoingLine(const QString &line)
{
    chatapps::forwardToCounterpart(this, "processOutgoingLine:", {line});
}

void ClientConnection::writeString(const QString &line)
{
    chatapps::forwardToCounterpart(this, "writeString:", {line});
}

void ClientConnection::fetchConnectionList()
{
    chatapps::forwardToCounterpart(this, "fetchConnectionList");
}

void ClientConnection::didUpdateList(const QVariantList &list)
{
    chatapps::forwardToCounterpart(this, "didUpdateList:", {list});
}

void ClientConnection::rehashNetworkIfPossible()
{
    chatapps::forwardToCounterpart(this, "rehashNetworkIfPossible");
}

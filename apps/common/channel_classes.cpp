#include "channel_classes.h"

#include "dictionary_objects.h"
#include "model/ztconnection.h"
#include "runtime/process.h"

ZT_DEFINE_CLASS(AgentChannel)
ZT_DEFINE_CLASS(ClientChannel)

namespace chatapps {

void forwardToCounterpart(ZTAbstractIPC *object, const char *selector, const QVariantList &arguments)
{
    if (ZTIPCProxy *mirror = object->counterpart())
        mirror->perform(zt::Selector(selector), arguments);
}

int importanceOf(const ZTAbstractChannel &channel)
{
    if (channel.isConsole())
        return 3;
    if (channel.isChannel())
        return 2;
    return channel.isQuery() ? 1 : 0;
}

void applyChannelDictionary(ZTAbstractChannel *channel, const QVariant &dictionary)
{
    zt::forEachEntry(dictionary, [channel](const QString &key, const QVariant &value) {
        if (key == u"description" || key == u"importance")
            return;
        if (key == u"linesDictionary") {
            channel->setContent(zt::entryValue(value, QStringLiteral("content")).toList());
            channel->setHistory(zt::entryValue(value, QStringLiteral("pastcontent")).toList());
        } else if (key == u"advancedSettings") {
            channel->setAdvancedSettingsDictionary(value);
        } else {
            channel->setValueForKey(value, key);
        }
    });
}

} // namespace chatapps

namespace {

//! The people for a list of person dictionaries, made by `make`, each tied
//! to the channel and its connection; nil when one of them cannot be made.
template<typename Make>
std::optional<QList<zt::Ref<ZTAbstractPerson>>> peopleFor(ZTAbstractChannel *channel,
                                                          const QVariantList &dictionaries, Make make)
{
    QList<zt::Ref<ZTAbstractPerson>> people;
    people.reserve(dictionaries.size());
    for (const QVariant &dictionary : dictionaries) {
        zt::Ref<ZTAbstractPerson> person = make(dictionary);
        if (!person)
            return std::nullopt;
        person->setChannel(channel);
        person->setConnection(channel->connection());
        people.append(person);
    }
    return people;
}

template<typename Settings, typename Ban>
void adoptSettingsAndBans(ZTAbstractChannel *channel, const QVariant *settings, const QVariantList *bans)
{
    if (settings)
        channel->setAdvancedSettings(
            zt::isNilOrNull(*settings)
                ? zt::Ref<ZTAbstractAdvancedSettings>()
                : zt::apps::objectFromDictionary<Settings, ZTAbstractAdvancedSettings>(settings->toMap()));
    if (!bans)
        return;
    // The bans are the channel's: one the new list no longer names ends.
    const QList<zt::Ref<ZTAbstractBan>> old = channel->banlist();
    channel->setBanlist(*zt::apps::objectsFromDictionaries<Ban, ZTAbstractBan>(*bans));
    for (const auto &ban : old)
        if (!channel->banlist().contains(ban))
            ban->invalidate();
}

} // namespace

// ---- agent ----

void AgentChannel::setAdvancedSettingsDictionary(const QVariant &dictionary)
{
    adoptSettingsAndBans<AgentAdvancedSettings, AgentBan>(this, &dictionary, nullptr);
}

void AgentChannel::setBanlistDictionaries(const QVariantList &dictionaries)
{
    adoptSettingsAndBans<AgentAdvancedSettings, AgentBan>(this, nullptr, &dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractPerson>>>
AgentChannel::replacementObjectsForUserDictionaries(const QVariantList &dictionaries)
{
    return peopleFor(this, dictionaries, [](const QVariant &d) -> zt::Ref<ZTAbstractPerson> {
        return peopleapps::objectFromDictionary<AgentPerson>(d);
    });
}

std::optional<QVariantList>
AgentChannel::replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries)
{
    return dictionaries;
}

void AgentChannel::join()
{
    if (!connection())
        return;
    const QString key = password();
    connection()->writeString(key.isEmpty() ? QStringLiteral("JOIN %1").arg(name())
                                            : QStringLiteral("JOIN %1 %2").arg(name(), key));
}

void AgentChannel::part()
{
    if (connection())
        connection()->writeString(QStringLiteral("PART %1").arg(name()));
}

void AgentChannel::cycle()
{
    part();
    join();
}

void AgentChannel::clear()
{
    setContent({});
    setIsClear(true);
}

void AgentChannel::echo(const QString &line)
{
    const QVariantMap entry{{QStringLiteral("msgID"), zt::process::globallyUniqueString()},
                            {QStringLiteral("text"), line}};
    mutableArrayValueForKey(QStringLiteral("content")).addObject(entry);
}

// ---- client ----

void ClientChannel::setAdvancedSettingsDictionary(const QVariant &dictionary)
{
    adoptSettingsAndBans<ClientAdvancedSettings, ClientBan>(this, &dictionary, nullptr);
}

void ClientChannel::setBanlistDictionaries(const QVariantList &dictionaries)
{
    adoptSettingsAndBans<ClientAdvancedSettings, ClientBan>(this, nullptr, &dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractPerson>>>
ClientChannel::replacementObjectsForUserDictionaries(const QVariantList &dictionaries)
{
    return peopleFor(this, dictionaries, [](const QVariant &d) -> zt::Ref<ZTAbstractPerson> {
        return ClientPerson::personWithDictionary(d);
    });
}

std::optional<QVariantList>
ClientChannel::replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries)
{
    return dictionaries;
}

void ClientChannel::join()
{
    chatapps::forwardToCounterpart(this, "join");
}

void ClientChannel::part()
{
    chatapps::forwardToCounterpart(this, "part");
}

void ClientChannel::cycle()
{
    chatapps::forwardToCounterpart(this, "cycle");
}

void ClientChannel::clear()
{
    chatapps::forwardToCounterpart(this, "clear");
}

void ClientChannel::startDCCChat()
{
    chatapps::forwardToCounterpart(this, "startDCCChat");
}

void ClientChannel::endDCCChat()
{
    chatapps::forwardToCounterpart(this, "endDCCChat");
}

void ClientChannel::mark()
{
    chatapps::forwardToCounterpart(this, "mark");
}

void ClientChannel::echo(const QString &line)
{
    chatapps::forwardToCounterpart(this, "echo:", {line});
}

void ClientChannel::didAddLines(const QVariantList &lines)
{
    chatapps::forwardToCounterpart(this, "didAddLines:", {lines});
}

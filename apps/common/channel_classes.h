#pragma once
// The agent's and the client's channels, for tests and the demo.
//
// The agent's channel has no protocol engine behind it: its actions write
// the protocol lines they stand for through the agent's connection
// (AgentConnection records them), and echo appends a line to the content.
// The client's channel forwards every action to its mirror in the agent.
//
// Both build their people, bans and advanced settings from dictionary forms:
// the object with the dictionary's UUID when one is registered, else a new
// one; each person is tied to the channel and its connection.

#include "model/ztchannel.h"
#include "person_classes.h"
#include "settings_classes.h"

namespace chatapps {

//! Sends `selector` to the object's mirror as a forwarded call; nothing for
//! an object outside the directory.
void forwardToCounterpart(ZTAbstractIPC *object, const char *selector, const QVariantList &arguments = {});

//! How channels rank in lists: a console 3, a channel 2, a query 1, else 0.
int importanceOf(const ZTAbstractChannel &channel);

//! Sets the entries of a channel's dictionary form on `channel`: the
//! computed ones go to their stored counterparts ("linesDictionary" to
//! "content" and "history", "advancedSettings" to the settings' dictionary
//! setter), "importance" is skipped, every other key is set as it is.
void applyChannelDictionary(ZTAbstractChannel *channel, const QVariant &dictionary);

//! The channel of class C for a dictionary form, registered or new, tied to
//! `connection` before its entries (and so its people) are applied.
template<typename C>
zt::Ref<C> channelFromDictionary(const QVariant &dictionary, ZTAbstractConnection *connection)
{
    const QString uuid = zt::entryValue(dictionary, QStringLiteral("description")).toString();
    if (uuid.isEmpty())
        return {};
    zt::Ref<C> channel = zt::dynamicCast<C>(ZTDirectory::sharedInstance()->objectWithID(uuid));
    if (!channel) {
        channel = zt::make<C>();
        if (ZTIPCProxy::isAgent()) {
            channel->init();
            channel->setDescription(uuid);
        } else {
            channel->initWithUUID(uuid);
        }
    }
    channel->setConnection(connection);
    applyChannelDictionary(channel.get(), dictionary);
    return channel;
}

} // namespace chatapps

class AgentChannel : public ZTAbstractChannel
{
    ZT_OBJECT(AgentChannel, ZTAbstractChannel)
public:
    int importance() const override { return chatapps::importanceOf(*this); }
    void setAdvancedSettingsDictionary(const QVariant &dictionary) override;
    void setBanlistDictionaries(const QVariantList &dictionaries) override;
    std::optional<QList<zt::Ref<ZTAbstractPerson>>>
    replacementObjectsForUserDictionaries(const QVariantList &dictionaries) override;
    std::optional<QVariantList>
    replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries) override;

    //! "JOIN <name>" (with the key when there is one).
    void join() override;
    //! "PART <name>".
    void part() override;
    void cycle() override;
    //! Empties the content and marks the view cleared.
    void clear() override;
    //! Appends {"msgID": a new UUID, "text": line} to the content.
    void echo(const QString &line) override;
};

class ClientChannel : public ZTAbstractChannel
{
    ZT_OBJECT(ClientChannel, ZTAbstractChannel)
public:
    int importance() const override { return chatapps::importanceOf(*this); }
    void setAdvancedSettingsDictionary(const QVariant &dictionary) override;
    void setBanlistDictionaries(const QVariantList &dictionaries) override;
    std::optional<QList<zt::Ref<ZTAbstractPerson>>>
    replacementObjectsForUserDictionaries(const QVariantList &dictionaries) override;
    std::optional<QVariantList>
    replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries) override;

    // Forwarded to the agent.
    void join() override;
    void part() override;
    void cycle() override;
    void clear() override;
    void startDCCChat() override;
    void endDCCChat() override;
    void mark() override;
    void echo(const QString &line) override;
    void didAddLines(const QVariantList &lines) override;
};

#include "model/ztconnection.h"

#include "core/ztdirectory.h"
#include "model/ztcontrollers.h"
#include "model/ztidentity.h"
#include "model/ztmodelsupport.h"
#include "model/ztnetwork.h"
#include "model/ztperson.h"
#include "model/ztsettings.h"
#include "runtime/logging.h"

#include <QSet>

ZT_DEFINE_CLASS(ZTAbstractConnection)

namespace {

const QString ChannelsKey = QStringLiteral("channels");
const QString TransfersKey = QStringLiteral("transfers");

void logAbstract(const char *selector)
{
    zt::log(ztModel, u"Abstract method: %@", QString::fromLatin1(selector));
}

template<typename T> QVariant dictionaryOf(const zt::Ref<T> &object)
{
    return object ? QVariant(object->dictionary()) : QVariant();
}

} // namespace

ZTAbstractConnection::ZTAbstractConnection() = default;
ZTAbstractConnection::~ZTAbstractConnection() = default;

std::optional<QList<zt::Ref<ZTAbstractChannel>>>
ZTAbstractConnection::replacementObjectsForChannelDictionaries(const QVariantList &)
{
    return std::nullopt;
}

// ---- transfers ----

ZT_DEFINE_WIRED_TO_MANY(ZTAbstractConnection, ZTAbstractTransfer, transfers, Transfers, transferDictionaries,
                        TransferDictionaries)

std::optional<QList<zt::Ref<ZTAbstractTransfer>>>
ZTAbstractConnection::replacementObjectsForTransferDictionaries(const QVariantList &)
{
    return std::nullopt;
}

// ---- single related objects ----

zt::Ref<ZTAbstractAdvancedSettings> ZTAbstractConnection::advancedSettings() const
{
    return m_advancedSettings;
}

void ZTAbstractConnection::setAdvancedSettings(const zt::Ref<ZTAbstractAdvancedSettings> &settings)
{
    setAndNotify(m_advancedSettings, settings, QStringLiteral("advancedSettings"));
}

QVariant ZTAbstractConnection::advancedSettingsDictionary() const
{
    return dictionaryOf(m_advancedSettings);
}

void ZTAbstractConnection::setAdvancedSettingsDictionary(const QVariant &)
{
    logAbstract("setAdvancedSettingsDictionary:");
}

zt::Ref<ZTAbstractSelfIdentity> ZTAbstractConnection::currentIdentity() const
{
    return m_currentIdentity;
}

void ZTAbstractConnection::setCurrentIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity)
{
    setAndNotify(m_currentIdentity, identity, QStringLiteral("currentIdentity"));
}

QVariant ZTAbstractConnection::currentIdentityDictionary() const
{
    return dictionaryOf(m_currentIdentity);
}

void ZTAbstractConnection::setCurrentIdentityDictionary(const QVariant &)
{
    logAbstract("setCurrentIdentityDictionary:");
}

zt::Ref<ZTAbstractSelfIdentity> ZTAbstractConnection::nextIdentity() const
{
    return m_nextIdentity;
}

void ZTAbstractConnection::setNextIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity)
{
    setAndNotify(m_nextIdentity, identity, QStringLiteral("nextIdentity"));
}

QVariant ZTAbstractConnection::nextIdentityDictionary() const
{
    return dictionaryOf(m_nextIdentity);
}

void ZTAbstractConnection::setNextIdentityDictionary(const QVariant &)
{
    logAbstract("setNextIdentityDictionary:");
}

zt::Ref<ZTAbstractServer> ZTAbstractConnection::server() const
{
    return m_server;
}

void ZTAbstractConnection::setServer(const zt::Ref<ZTAbstractServer> &server)
{
    setAndNotify(m_server, server, QStringLiteral("server"));
}

QVariant ZTAbstractConnection::serverDictionary() const
{
    return dictionaryOf(m_server);
}

void ZTAbstractConnection::setServerDictionary(const QVariant &dictionary)
{
    setAndNotify(m_serverDictionary, dictionary, QStringLiteral("serverDictionary"));
}

zt::Ref<ZTAbstractProxy> ZTAbstractConnection::proxy() const
{
    return m_proxy;
}

void ZTAbstractConnection::setProxy(const zt::Ref<ZTAbstractProxy> &proxy)
{
    setAndNotify(m_proxy, proxy, QStringLiteral("proxy"));
}

QVariant ZTAbstractConnection::proxyDictionary() const
{
    return dictionaryOf(m_proxy);
}

void ZTAbstractConnection::setProxyDictionary(const QVariant &)
{
    logAbstract("setProxyDictionary:");
}

QVariant ZTAbstractConnection::consoleDictionary() const
{
    return dictionaryOf(m_console);
}

void ZTAbstractConnection::setConsoleDictionary(const QVariant &)
{
    logAbstract("setConsoleDictionary:");
}

QVariantList ZTAbstractConnection::highlightDictionaries() const
{
    return zt::model::dictionariesOfEntries(m_highlights);
}

void ZTAbstractConnection::setHighlightDictionaries(const QVariantList &dictionaries)
{
    m_highlightDictionaries = dictionaries;
    if (auto entries = replacementObjectsForHighlightDictionaries(dictionaries))
        setHighlights(*entries);
}

std::optional<QVariantList>
ZTAbstractConnection::replacementObjectsForHighlightDictionaries(const QVariantList &)
{
    return std::nullopt;
}

// ---- object life ----

void ZTAbstractConnection::init()
{
    super::init();
    setStatus(3);
    setChannelList({});
    setChannels({});
    setChannelDictionaries({});
    setTransfers({});
    setTransferDictionaries({});
    setAutoexec({});
    setHighlights({});
    setNickname(QStringLiteral(""));
    // The departure rule; it reads the list as it is now, so it asks only
    // for old values (an insertion copies nothing).
    addObservationToken(VDKVO::observeAtKeyPathOptionsHandler(
        this, ChannelsKey, zt::ObservingOption::Old, [this](zt::Object *, const zt::KVOChange &change) {
            invalidateChannels(zt::model::departedObjects(change, m_channels));
        }));
}

void ZTAbstractConnection::invalidateChannels(const QList<zt::Ref<ZTAbstractChannel>> &channels)
{
    for (const auto &channel : channels) {
        if (!channel)
            continue;
        channel->invalidate();
        channel->setConnection(nullptr);
    }
}

void ZTAbstractConnection::nilify()
{
    // What the connection owns ends with it: the departure observation has
    // ended by now (invalidate empties the observer set first; teardown
    // too), so the channels and the console are invalidated here, and so
    // are the settings, transfers, proxy, the identities that the identity
    // controller does not list, and a server that no
    // network lists (a network's server stays the network's).
    m_tearingDown = true;
    QList<zt::Ref<ZTAbstractIPC>> owned;
    auto keep = [&owned](const zt::Ref<ZTAbstractIPC> &object) {
        if (object && !owned.contains(object))
            owned.append(object);
    };
    keep(m_advancedSettings);
    setAdvancedSettings({});
    const QList<zt::Ref<ZTAbstractChannel>> held = m_channels;
    setChannels({});
    invalidateChannels(held);
    for (const auto &transfer : m_transfers)
        keep(transfer);
    setTransfers({});
    keep(m_proxy);
    setProxy({});
    if (const zt::Ref<ZTAbstractChannel> console = m_console) {
        setConsole({});
        invalidateChannels({console});
    }
    setModes(QString());
    // The user's own identities belong to the identity controller when it
    // lists them; any other identity was the connection's alone.
    const auto identities = zt::dynamicCast<ZTAbstractIdentityController>(
        ZTDirectory::sharedInstance()->objectWithID(QStringLiteral("IdentityController")));
    for (const zt::Ref<ZTAbstractSelfIdentity> &identity : {m_currentIdentity, m_nextIdentity})
        if (!identities || !identities->identities().contains(identity))
            keep(identity);
    setCurrentIdentity({});
    setNextIdentity({});
    if (m_server && !(m_server->network() && m_server->network()->servers().contains(m_server)))
        keep(m_server);
    setServer({});
    setHighlights({});
    setAutoexec({});
    setNickname(QString());
    setAttributes({});
    setChannelList({});
    for (const auto &object : owned)
        object->invalidate();
    super::nilify();
}

bool ZTAbstractConnection::shouldPropagateValueChangesForKey(const QString &key) const
{
    return !m_tearingDown && super::shouldPropagateValueChangesForKey(key);
}

void ZTAbstractConnection::dealloc()
{
    Q_ASSERT_X(!inDirectory(), "ZTAbstractConnection", "a connection must be invalidated before it is freed");
    super::dealloc();
}

QString ZTAbstractConnection::replacementKeyForWiring(const QString &key) const
{
    static const QHash<QString, QString> wired = {
        {QStringLiteral("server"), QStringLiteral("serverDictionary")},
        {QStringLiteral("currentIdentity"), QStringLiteral("currentIdentityDictionary")},
        {QStringLiteral("nextIdentity"), QStringLiteral("nextIdentityDictionary")},
        {ChannelsKey, QStringLiteral("channelDictionaries")},
        {TransfersKey, QStringLiteral("transferDictionaries")},
        {QStringLiteral("advancedSettings"), QStringLiteral("advancedSettingsDictionary")},
        {QStringLiteral("proxy"), QStringLiteral("proxyDictionary")},
        {QStringLiteral("console"), QStringLiteral("consoleDictionary")},
        {QStringLiteral("highlights"), QStringLiteral("highlightDictionaries")},
    };
    const auto it = wired.constFind(key);
    return it != wired.cend() ? *it : super::replacementKeyForWiring(key);
}

// ---- bookkeeping ----

void ZTAbstractConnection::addChannel(const zt::Ref<ZTAbstractChannel> &channel)
{
    if (channel)
        mutableChannels().addObject(zt::objectValue(channel.get()));
}

void ZTAbstractConnection::addChannels(const QList<zt::Ref<ZTAbstractChannel>> &channels)
{
    mutableChannels().addObjects(zt::detail::objectValues(channels));
}

void ZTAbstractConnection::removeChannel(const zt::Ref<ZTAbstractChannel> &channel)
{
    removeChannelsInArray({channel});
}

void ZTAbstractConnection::removeChannelsInArray(const QList<zt::Ref<ZTAbstractChannel>> &channels)
{
    const zt::IndexSet found = zt::model::indexesOfAny(m_channels, channels);
    if (!found.isEmpty())
        mutableChannels().removeObjectsAtIndexes(found);
}

void ZTAbstractConnection::removeAllChannels()
{
    mutableChannels().removeAllObjects();
}

void ZTAbstractConnection::insertChannelsAtLocations(const QList<zt::Ref<ZTAbstractChannel>> &channels,
                                                     const zt::IndexSet &indexes)
{
    mutableChannels().insertObjectsAtIndexes(zt::detail::objectValues(channels), indexes);
}

void ZTAbstractConnection::removeChannelsAtLocations(const zt::IndexSet &indexes)
{
    mutableChannels().removeObjectsAtIndexes(indexes);
}

void ZTAbstractConnection::addTransfer(const zt::Ref<ZTAbstractTransfer> &transfer)
{
    if (transfer)
        mutableTransfers().addObject(zt::objectValue(transfer.get()));
}

void ZTAbstractConnection::removeTransfer(const zt::Ref<ZTAbstractTransfer> &transfer)
{
    for (qsizetype i = 0; i < m_transfers.size(); ++i) {
        if (m_transfers[i].get() == transfer.get()) {
            removeTransfersAtLocations(zt::IndexSet(quint64(i)));
            return;
        }
    }
}

void ZTAbstractConnection::insertTransfersAtLocations(const QList<zt::Ref<ZTAbstractTransfer>> &transfers,
                                                      const zt::IndexSet &indexes)
{
    mutableTransfers().insertObjectsAtIndexes(zt::detail::objectValues(transfers), indexes);
}

void ZTAbstractConnection::removeTransfersAtLocations(const zt::IndexSet &indexes)
{
    mutableTransfers().removeObjectsAtIndexes(indexes);
}

// ---- look-ups ----

zt::Ref<ZTAbstractChannel> ZTAbstractConnection::channelWithName(const QString &name) const
{
    for (const auto &channel : m_channels)
        if (channel->name().compare(name, Qt::CaseInsensitive) == 0)
            return channel;
    return {};
}

zt::Ref<ZTAbstractChannel> ZTAbstractConnection::queryWithName(const QString &name) const
{
    for (const auto &channel : m_channels)
        if (channel->isQuery() && channel->name().compare(name, Qt::CaseInsensitive) == 0)
            return channel;
    return {};
}

QList<zt::Ref<ZTAbstractPerson>> ZTAbstractConnection::personsWithName(const QString &) const
{
    return {};
}

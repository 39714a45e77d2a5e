#include "network_classes.h"

#include "core/vdkvo.h"
#include "dictionary_objects.h"
#include "runtime/keyedarchive.h"
#include "runtime/kvo.h"

#include <QFile>
#include <QSaveFile>
#include <QSet>

ZT_DEFINE_CLASS(AgentServer)
ZT_DEFINE_CLASS(ClientServer)
ZT_DEFINE_CLASS(AgentNetwork)
ZT_DEFINE_CLASS(ClientNetwork)
ZT_DEFINE_CLASS(AgentNetworkDirectory)
ZT_DEFINE_CLASS(ClientNetworkDirectory)

namespace {
// The list before and after a change of `key`: removals and settings carry
// the departed objects in the old value; a replacement in both.
template<typename Owner>
void invalidateDepartedOn(Owner *owner, const QString &key, void (*invalidate)(zt::Object *))
{
    owner->addObservationToken(zt::observeKeyPathOptionsHandler(
        owner, key, zt::ObservingOption::Old,
        [owner, key, invalidate](zt::Object *, const zt::KVOChange &change) {
            if (change.kind == zt::KeyValueChange::Insertion)
                return;
            const QVariantList now = owner->valueForKey(key).toList();
            QSet<zt::Object *> kept;
            for (const QVariant &v : now)
                kept.insert(zt::objectFrom(v));
            for (const QVariant &v : change.oldValue.toList())
                if (zt::Object *object = zt::objectFrom(v); object && !kept.contains(object))
                    invalidate(object);
        }));
}
} // namespace

// ---- networks ----

QVariant AgentNetwork::newServer()
{
    auto server = zt::make<AgentServer>();
    server->init();
    return zt::objectValue(server.get());
}

std::optional<QList<zt::Ref<ZTAbstractServer>>>
AgentNetwork::replacementObjectsForServerDictionaries(const QVariantList &dictionaries)
{
    return zt::apps::objectsFromDictionaries<AgentServer, ZTAbstractServer>(dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractServer>>>
ClientNetwork::replacementObjectsForServerDictionaries(const QVariantList &dictionaries)
{
    return zt::apps::objectsFromDictionaries<ClientServer, ZTAbstractServer>(dictionaries);
}

void ClientNetwork::init()
{
    super::init();
    invalidateDepartedOn(this, QStringLiteral("servers"),
                         [](zt::Object *server) { static_cast<ZTAbstractIPC *>(server)->invalidate(); });
}

void invalidateNetworkTree(ZTAbstractNetwork *network)
{
    zt::Ref<ZTAbstractNetwork> keep(network);
    for (const zt::Ref<ZTAbstractServer> &server : network->servers())
        server->invalidate();
    network->invalidate();
}

void invalidateNetworkDirectory(ZTAbstractNetworkDirectory *directory)
{
    zt::Ref<ZTAbstractNetworkDirectory> keep(directory);
    for (const zt::Ref<ZTAbstractNetwork> &network : directory->networks())
        invalidateNetworkTree(network.get());
    directory->invalidate();
}

// ---- directories ----

std::optional<QList<zt::Ref<ZTAbstractNetwork>>>
AgentNetworkDirectory::replacementObjectsForNetworkDictionaries(const QVariantList &dictionaries)
{
    return zt::apps::objectsFromDictionaries<AgentNetwork, ZTAbstractNetwork>(dictionaries);
}

void AgentNetworkDirectory::saveData()
{
    ++m_saveCount;
    if (m_savePath.isEmpty())
        return;
    QSaveFile file(m_savePath);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(zt::KeyedArchiver::archivedDataWithRootObject(zt::detail::objectValues(networks())));
        file.commit();
    }
}

QList<zt::Ref<ZTAbstractNetwork>> AgentNetworkDirectory::loadNetworks(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const std::optional<QVariant> root = zt::KeyedUnarchiver::unarchiveObjectWithData(file.readAll());
    QList<zt::Ref<ZTAbstractNetwork>> out;
    if (root)
        for (const QVariant &v : root->toList())
            if (auto network = zt::fromValue<zt::Ref<ZTAbstractNetwork>>(v))
                out.append(network);
    return out;
}

std::optional<QList<zt::Ref<ZTAbstractNetwork>>>
ClientNetworkDirectory::replacementObjectsForNetworkDictionaries(const QVariantList &dictionaries)
{
    return zt::apps::objectsFromDictionaries<ClientNetwork, ZTAbstractNetwork>(dictionaries);
}

void ClientNetworkDirectory::init()
{
    super::init();
    invalidateDepartedOn(this, QStringLiteral("networks"), [](zt::Object *network) {
        invalidateNetworkTree(static_cast<ZTAbstractNetwork *>(network));
    });
}

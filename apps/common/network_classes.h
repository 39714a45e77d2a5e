#pragma once
// The agent's and the client's networks, servers and network directories.
//
// Both build servers and networks from dictionaries (dictionary_objects.h).
// The client's network and directory own their mirrors: a server or network
// that leaves the list is invalidated (with a network, its servers first).
// The agent's directory stores its networks in a keyed archive at
// savePath() when one is set.

#include "model/ztnetwork.h"

class AgentServer : public ZTAbstractServer
{
    ZT_OBJECT(AgentServer, ZTAbstractServer)
};

class ClientServer : public ZTAbstractServer
{
    ZT_OBJECT(ClientServer, ZTAbstractServer)
};

class AgentNetwork : public ZTAbstractNetwork
{
    ZT_OBJECT(AgentNetwork, ZTAbstractNetwork)
public:
    static const zt::ClassInfo *networkClass() { return &AgentNetwork::staticClassInfo(); }
    static const zt::ClassInfo *serverClass() { return &AgentServer::staticClassInfo(); }
    //! A new AgentServer (made with init), not yet in the list.
    QVariant newServer() override;
    std::optional<QList<zt::Ref<ZTAbstractServer>>>
    replacementObjectsForServerDictionaries(const QVariantList &dictionaries) override;
};

class ClientNetwork : public ZTAbstractNetwork
{
    ZT_OBJECT(ClientNetwork, ZTAbstractNetwork)
public:
    static const zt::ClassInfo *networkClass() { return &ClientNetwork::staticClassInfo(); }
    static const zt::ClassInfo *serverClass() { return &ClientServer::staticClassInfo(); }
    std::optional<QList<zt::Ref<ZTAbstractServer>>>
    replacementObjectsForServerDictionaries(const QVariantList &dictionaries) override;
    void init() override;
};

class AgentNetworkDirectory : public ZTAbstractNetworkDirectory
{
    ZT_OBJECT(AgentNetworkDirectory, ZTAbstractNetworkDirectory)
public:
    std::optional<QList<zt::Ref<ZTAbstractNetwork>>>
    replacementObjectsForNetworkDictionaries(const QVariantList &dictionaries) override;
    //! Counts the saves and, with a save path, writes the networks there.
    void saveData() override;
    int saveCount() const { return m_saveCount; }
    QString savePath() const { return m_savePath; }
    void setSavePath(const QString &path) { m_savePath = path; }
    //! The networks stored at `path`; empty when there is nothing readable.
    static QList<zt::Ref<ZTAbstractNetwork>> loadNetworks(const QString &path);

private:
    int m_saveCount = 0;
    QString m_savePath;
};

class ClientNetworkDirectory : public ZTAbstractNetworkDirectory
{
    ZT_OBJECT(ClientNetworkDirectory, ZTAbstractNetworkDirectory)
public:
    std::optional<QList<zt::Ref<ZTAbstractNetwork>>>
    replacementObjectsForNetworkDictionaries(const QVariantList &dictionaries) override;
    void init() override;
};

//! Takes a network and its servers out of the directory (servers first).
void invalidateNetworkTree(ZTAbstractNetwork *network);
//! The whole directory: every network tree, then the directory itself.
void invalidateNetworkDirectory(ZTAbstractNetworkDirectory *directory);

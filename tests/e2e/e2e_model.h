#pragma once
// The model the two end-to-end processes mirror: a node with a string and an
// integer property and an ordered list of child nodes, which crosses the
// boundary as their dictionaries. E2ENode plays the framework's abstract
// model class; each process has its concrete subclass.

#include "core/ztagenthost.h"
#include "core/ztclientnode.h"

class E2ENode : public ZTAbstractIPC
{
    ZT_OBJECT(E2ENode, ZTAbstractIPC)
public:
    QString name() const { return m_name; }
    void setName(const QString &v) { setAndNotify(m_name, v, QStringLiteral("name")); }
    qint64 count() const { return m_count; }
    void setCount(qint64 v) { setAndNotify(m_count, v, QStringLiteral("count")); }

    QList<zt::Ref<E2ENode>> children() const { return m_children; }
    void insertChildrenAtIndexes(const QList<zt::Ref<E2ENode>> &nodes, const zt::IndexSet &indexes);
    void removeChildrenAtIndexes(const zt::IndexSet &indexes);

    QVariantList childDictionaries() const;
    void setChildDictionaries(const QVariantList &dictionaries);
    void insertChildDictionariesAtIndexes(const QVariantList &dictionaries, const zt::IndexSet &indexes);
    void removeChildDictionariesAtIndexes(const zt::IndexSet &indexes);
    //! Made concrete by each process's subclass.
    virtual QList<zt::Ref<E2ENode>> replacementObjectsForChildDictionaries(const QVariantList &dictionaries);

    //! Actions a client forwards to the agent.
    void renameTo(const QString &name) { setName(name); }
    QString summary() const;

    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
    void nilify() override;
    //! The owner's end of the model: the children, then the node, leave the directory.
    void invalidateTree();

private:
    QString m_name;
    qint64 m_count = 0;
    QList<zt::Ref<E2ENode>> m_children;
};

class E2EAgentNode : public E2ENode
{
    ZT_OBJECT(E2EAgentNode, E2ENode)
};

class E2EClientNode : public E2ENode
{
    ZT_OBJECT(E2EClientNode, E2ENode)
public:
    QList<zt::Ref<E2ENode>> replacementObjectsForChildDictionaries(const QVariantList &dictionaries) override;
};

//! The model as one line, for the processes to print and the test to compare.
QString describeTree(const E2ENode *node);

//! The root protocols of the two end-to-end processes.
const zt::Protocol &e2eAgentRootProtocol();
const zt::Protocol &e2eClientRootProtocol();

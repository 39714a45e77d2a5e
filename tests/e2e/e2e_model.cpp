#include "e2e_model.h"

#include "runtime/kvc.h"

ZT_DEFINE_CLASS_WITH_MEMBERS(E2ENode)

void E2ENode::registerMembers(zt::ClassBuilder<E2ENode> &b)
{
    b.property("name", &E2ENode::name, &E2ENode::setName);
    b.property("count", &E2ENode::count, &E2ENode::setCount);
    b.method("children", &E2ENode::children);
    b.method("insertChildren:atIndexes:", &E2ENode::insertChildrenAtIndexes);
    b.method("removeChildrenAtIndexes:", &E2ENode::removeChildrenAtIndexes);
    b.property("childDictionaries", &E2ENode::childDictionaries, &E2ENode::setChildDictionaries);
    b.method("insertChildDictionaries:atIndexes:", &E2ENode::insertChildDictionariesAtIndexes);
    b.method("removeChildDictionariesAtIndexes:", &E2ENode::removeChildDictionariesAtIndexes);
    b.action("renameTo:", &E2ENode::renameTo);
    b.action("summary", &E2ENode::summary);
}

ZT_DEFINE_CLASS(E2EAgentNode)
ZT_DEFINE_CLASS(E2EClientNode)

void E2ENode::insertChildrenAtIndexes(const QList<zt::Ref<E2ENode>> &nodes, const zt::IndexSet &indexes)
{
    qsizetype k = 0;
    for (quint64 i : indexes)
        m_children.insert(qsizetype(i), nodes[k++]);
}

void E2ENode::removeChildrenAtIndexes(const zt::IndexSet &indexes)
{
    for (auto r = indexes.ranges().rbegin(); r != indexes.ranges().rend(); ++r)
        m_children.remove(qsizetype(r->location), qsizetype(r->length));
}

QVariantList E2ENode::childDictionaries() const
{
    QVariantList out;
    out.reserve(m_children.size());
    for (const auto &c : m_children)
        out.append(c->dictionary());
    return out;
}

void E2ENode::setChildDictionaries(const QVariantList &dictionaries)
{
    const QList<zt::Ref<E2ENode>> departed = std::exchange(m_children, {});
    zt::MutableArrayProxy children = mutableArrayValueForKey(QStringLiteral("children"));
    children.addObjects(zt::toValue(replacementObjectsForChildDictionaries(dictionaries)).toList());
    for (const auto &c : departed)
        if (!m_children.contains(c))
            c->invalidate();
}

void E2ENode::insertChildDictionariesAtIndexes(const QVariantList &dictionaries, const zt::IndexSet &indexes)
{
    mutableArrayValueForKey(QStringLiteral("children"))
        .insertObjectsAtIndexes(zt::toValue(replacementObjectsForChildDictionaries(dictionaries)).toList(),
                                indexes);
}

void E2ENode::removeChildDictionariesAtIndexes(const zt::IndexSet &indexes)
{
    QList<zt::Ref<E2ENode>> departed;
    for (quint64 i : indexes)
        if (i < quint64(m_children.size()))
            departed.append(m_children[qsizetype(i)]);
    mutableArrayValueForKey(QStringLiteral("children")).removeObjectsAtIndexes(indexes);
    for (const auto &c : departed)
        c->invalidate();
}

QList<zt::Ref<E2ENode>> E2ENode::replacementObjectsForChildDictionaries(const QVariantList &)
{
    return {};
}

QString E2ENode::summary() const
{
    return describeTree(this);
}

QVariantMap E2ENode::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("name"), m_name);
    d.insert(QStringLiteral("count"), m_count);
    return d;
}

QString E2ENode::replacementKeyForWiring(const QString &key) const
{
    return key == u"children" ? QStringLiteral("childDictionaries") : super::replacementKeyForWiring(key);
}

void E2ENode::invalidateTree()
{
    for (const auto &c : m_children)
        c->invalidate();
    invalidate();
}

void E2ENode::nilify()
{
    m_children.clear();
}

QList<zt::Ref<E2ENode>>
E2EClientNode::replacementObjectsForChildDictionaries(const QVariantList &dictionaries)
{
    QList<zt::Ref<E2ENode>> out;
    for (const QVariant &v : dictionaries) {
        const QVariantMap d = v.toMap();
        auto node = zt::dynamicCast<E2ENode>(ZTAbstractIPC::createCounterpartWithUUID<E2EClientNode>(
            d.value(QStringLiteral("description")).toString()));
        if (!node)
            continue;
        node->setName(d.value(QStringLiteral("name")).toString());
        node->setCount(d.value(QStringLiteral("count")).toLongLong());
        out.append(node);
    }
    return out;
}

QString describeTree(const E2ENode *node)
{
    QStringList children;
    for (const auto &c : node->children())
        children.append(c->name() + u':' + QString::number(c->count()));
    return QStringLiteral("name=%1 count=%2 children=[%3]")
        .arg(node->name())
        .arg(node->count())
        .arg(children.join(u','));
}

const zt::Protocol &e2eAgentRootProtocol()
{
    return ZTRootObject::agentRootProtocol();
}

const zt::Protocol &e2eClientRootProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p = ZTRootObject::clientRootProtocol();
        p.addMethod("agentFinished:", zt::MethodSignature::fromTypes("v@:@"));
        return p;
    }();
    return protocol;
}

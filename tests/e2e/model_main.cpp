// The model scenario's two processes: `zt-e2e-model --agent` prints
// "LISTENING <port>" and sends a snapshot after each step; `zt-e2e-model
// <port>` prints "STEP <name>: OK" (or MISMATCH and one "  <difference>"
// line each) per snapshot and "DONE <steps>".

#include "controller_classes.h"
#include "core/ztagenthost.h"
#include "core/ztclientnode.h"
#include "core/ztrootobject.h"
#include "dictionary_objects.h"
#include "model_diff.h"
#include "model_scenario.h"
#include "runtime/exception.h"
#include "runtime/members.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTextStream>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

QTextStream out(stdout);
const QString GoneEntry = u"@gone"_s;   // the snapshot's list of UUIDs that must have left
const QString OrderEntry = u"@order"_s; // the root's UUID, then those of its objects in order

// Controllers have a fixed UUID: the client makes them with plain init()
// unless one of the class is registered already (the person list
// controller never is: the network directory holds its UUID).
template<typename C> zt::Ref<ZTAbstractIPC> singleton(const QVariantMap &dictionary)
{
    const QString uuid = dictionary.value(u"description"_s).toString();
    if (auto existing = zt::dynamicCast<C>(ZTDirectory::sharedInstance()->objectWithID(uuid)))
        return existing;
    return made<C>();
}

// The client's mirrors of top-level objects, by the agent's class name.
QList<zt::Ref<ZTAbstractIPC>> mirrorsOf(const QVariantList &entries)
{
    using Builder = zt::Ref<ZTAbstractIPC> (*)(const QVariantMap &);
    using zt::apps::objectFromDictionary;
    static const QHash<QString, Builder> builders = {
        {u"AgentAdvancedSettings"_s, objectFromDictionary<ClientAdvancedSettings, ZTAbstractIPC>},
        {u"AgentProxy"_s, objectFromDictionary<ClientProxy, ZTAbstractIPC>},
        {u"AgentBan"_s, objectFromDictionary<ClientBan, ZTAbstractIPC>},
        {u"AgentTransfer"_s, objectFromDictionary<ClientTransfer, ZTAbstractIPC>},
        {u"AgentSelfIdentity"_s, objectFromDictionary<ClientSelfIdentity, ZTAbstractIPC>},
        {u"AgentPseudoPerson"_s, objectFromDictionary<ClientPseudoPerson, ZTAbstractIPC>},
        {u"AgentPerson"_s,
         [](const QVariantMap &d) -> zt::Ref<ZTAbstractIPC> {
             return ClientPerson::personWithDictionary(d);
         }},
        {u"AgentConnectionController"_s, singleton<ClientConnectionController>},
        {u"AgentIdentityController"_s, singleton<ClientIdentityController>},
        {u"AgentPersonListController"_s, singleton<ClientPersonListController>},
    };
    QList<zt::Ref<ZTAbstractIPC>> mirrors;
    for (const QVariant &entry : entries) {
        const QVariantMap e = entry.toMap();
        if (const Builder builder = builders.value(e.value(u"class"_s).toString()))
            mirrors.append(builder(e.value(u"dictionary"_s).toMap()));
    }
    return mirrors;
}

// The dictionary form plus, for objects whose form is only their UUID, the
// keys they hold (a nil value as "<nil>"): what is compared.
QVariantMap comparedForm(const ZTAbstractIPC *object)
{
    static const QList<std::pair<const zt::ClassInfo *, QString>> held = {
        {&ZTAbstractConnection::staticClassInfo(),
         u"nickname modes status unreadLines unreadHighlights attributes serverDictionary "
         u"currentIdentityDictionary nextIdentityDictionary advancedSettingsDictionary proxyDictionary "
         u"consoleDictionary channelDictionaries transferDictionaries"_s},
        {&ZTAbstractChannel::staticClassInfo(), u"starOccurences"_s},
        {&ZTAbstractConnectionController::staticClassInfo(), u"connectionDictionaries"_s},
        {&ZTAbstractIdentityController::staticClassInfo(), u"identityDictionaries"_s},
        {&ZTAbstractNetworkDirectory::staticClassInfo(), u"networkDictionaries"_s},
    };
    QVariantMap form = object->dictionary();
    for (const auto &[cls, keys] : held)
        for (const QString &key : object->isKindOfClass(*cls) ? keys.split(u' ') : QStringList()) {
            const QVariant value = const_cast<ZTAbstractIPC *>(object)->valueForKey(key);
            form.insert(key, value.isValid() ? value : QVariant(u"<nil>"_s));
        }
    return form;
}

} // namespace

//! The root both processes mirror: the top-level objects of the scenario,
//! wired as {"class": agent class name, "dictionary": dictionary form}.
class ScenarioRoot : public ZTAbstractIPC
{
    ZT_OBJECT(ScenarioRoot, ZTAbstractIPC)
public:
    ZT_TO_MANY(ZTAbstractIPC, objects, Objects)
    ZT_KEY(objectDictionaries, setObjectDictionaries)
    ZT_METHOD("insertObjectDictionaries:atIndexes:", insertObjectDictionariesAtIndexes)
    ZT_METHOD("removeObjectDictionariesAtIndexes:", removeObjectDictionariesAtIndexes)

    QVariantList objectDictionaries() const
    {
        return zt::detail::limitedList(m_objects.size(), [objects = m_objects](qsizetype from, qsizetype n) {
            QVariantList entries;
            for (const zt::Ref<ZTAbstractIPC> &object : objects.mid(from, n))
                entries.append(
                    QVariantMap{{u"class"_s, object->className()}, {u"dictionary"_s, object->dictionary()}});
            return entries;
        });
    }
    void setObjectDictionaries(const QVariantList &entries) { setObjects(mirrorsOf(entries)); }
    void insertObjectDictionariesAtIndexes(const QVariantList &entries, const zt::IndexSet &indexes)
    {
        mutableObjects().insertObjectsAtIndexes(zt::detail::objectValues(mirrorsOf(entries)), indexes);
    }
    void removeObjectDictionariesAtIndexes(const zt::IndexSet &indexes)
    {
        const QList<zt::Ref<ZTAbstractIPC>> before = m_objects;
        mutableObjects().removeObjectsAtIndexes(indexes);
        for (const auto &object : before)
            if (!m_objects.contains(object))
                object->invalidate(); // the client's root owns its mirrors
    }
    QVariantMap dictionary() const override
    {
        QVariantMap d = super::dictionary();
        d.insert(u"objectDictionaries"_s, objectDictionaries());
        return d;
    }
    QString replacementKeyForWiring(const QString &key) const override
    {
        return key == u"objects" ? u"objectDictionaries"_s : super::replacementKeyForWiring(key);
    }
    void invalidateAll()
    {
        for (const zt::Ref<ZTAbstractIPC> &object : m_objects)
            object->invalidate();
        invalidate();
    }
};
ZT_DEFINE_CLASS(ScenarioRoot)

//! The client's root: compares each step's snapshot with its mirrors.
class ScenarioClientRoot : public ZTRootObject
{
    ZT_OBJECT(ScenarioClientRoot, ZTRootObject)
public:
    void agentCompletedStepSnapshot(const QString &step, const QVariantMap &snapshot)
    {
        QStringList differences;
        for (auto it = snapshot.cbegin(); it != snapshot.cend(); ++it) {
            if (it.key() == OrderEntry) {
                const QStringList order = it.value().toStringList();
                QStringList found{order.value(0)};
                if (auto mirror = zt::dynamicCast<ScenarioRoot>(
                        ZTDirectory::sharedInstance()->objectWithID(order.value(0))))
                    for (const auto &object : mirror->objects())
                        found.append(object->description());
                if (found != order)
                    differences.append(u"the root's objects are not in the agent's order"_s);
            } else if (it.key() == GoneEntry) {
                for (const QVariant &uuid : it.value().toList())
                    if (ZTDirectory::sharedInstance()->objectWithID(uuid.toString()))
                        differences.append(uuid.toString() + u": still in the directory"_s);
            } else if (auto mirror = ZTDirectory::sharedInstance()->objectWithID(it.key())) {
                differences +=
                    zt::apps::describeDifferences(it.value(), comparedForm(mirror.get()), it.key());
            } else {
                differences.append(it.key() + u": no mirror"_s);
            }
        }
        out << "STEP " << step << (differences.isEmpty() ? ": OK" : ": MISMATCH") << '\n';
        for (const QString &d : differences)
            out << "  " << d << '\n';
        out.flush();
    }
    ZT_METHOD("agentCompletedStep:snapshot:", agentCompletedStepSnapshot)
    void agentFinished(qint64 steps)
    {
        out << "DONE " << steps << Qt::endl;
        QCoreApplication::quit();
    }
    ZT_METHOD("agentFinished:", agentFinished)
    //! The client's own action on its mirror (a reset of counters read here).
    void agentAsksClientToPerformOnObjectWithID(const QString &selector, const QString &uuid)
    {
        if (zt::Ref<ZTAbstractIPC> mirror = ZTDirectory::sharedInstance()->objectWithID(uuid))
            mirror->perform(zt::Selector(selector.toLatin1()));
    }
    ZT_METHOD("agentAsksClientToPerform:onObjectWithID:", agentAsksClientToPerformOnObjectWithID)
};
ZT_DEFINE_CLASS(ScenarioClientRoot)

void ScenarioContext::adopt(const QString &name, const zt::Ref<ZTAbstractIPC> &object)
{
    adopted.insert(name, object);
    root->mutableObjects().addObject(zt::objectValue(object.get()));
}

void ScenarioContext::drop(const QString &name)
{
    zt::Ref<ZTAbstractIPC> object = adopted.take(name);
    root->mutableObjects().removeObjectAtIndex(root->objects().indexOf(object));
    object->invalidate();
}

QVariantMap ScenarioContext::snapshot()
{
    QVariantMap forms;
    ZTDirectory *registered = ZTDirectory::sharedInstance();
    // A dictionary whose UUID the directory holds names an object: its
    // compared form goes in, and is searched in turn.
    std::function<void(const QVariant &)> visit = [&](const QVariant &value) {
        if (value.typeId() == QMetaType::QVariantList) {
            for (const QVariant &v : value.toList())
                visit(v);
        } else if (value.typeId() == QMetaType::QVariantMap) {
            const QString uuid = value.toMap().value(u"description"_s).toString();
            zt::Ref<ZTAbstractIPC> object = forms.contains(uuid) ? nullptr : registered->objectWithID(uuid);
            if (object)
                forms.insert(uuid, comparedForm(object.get()));
            for (const QVariant &v : object ? forms.value(uuid).toMap() : value.toMap())
                visit(v);
        }
    };
    visit(directory->dictionary());
    visit(root->objectDictionaries());
    const QStringList gone = QSet<QString>(seen).subtract(QSet(forms.keyBegin(), forms.keyEnd())).values();
    for (const QString &uuid : gone)
        if (registered->objectWithID(uuid))
            QTextStream(stderr) << uuid << ": still in the agent's directory" << Qt::endl;
    seen.unite(QSet(forms.keyBegin(), forms.keyEnd()));
    forms.insert(GoneEntry, gone);
    QStringList order{root->description()}; // then its top-level objects' UUIDs, in order
    for (const auto &object : root->objects())
        order.append(object->description());
    forms.insert(OrderEntry, order);
    return forms;
}

namespace {

struct Agent : ZTAgentHostDelegate
{
    ScenarioContext ctx;
    QList<ScenarioStep> steps = networkSteps() + peopleSteps() + chatSteps();

    void hostDidRegisterClient(ZTAgentHost *host, VDConnection *) override
    {
        ctx.tellClient = [host](const char *selector, const QVariantList &arguments) {
            host->counterpart()->perform(selector, arguments);
        };
        run(0, QDeadlineTimer(5000));
    }
    // A step with `until` waits for it on the event loop for at most five
    // seconds, then the snapshot goes out and the next step runs.
    void run(qsizetype index, QDeadlineTimer deadline, bool started = false)
    {
        if (index == steps.size())
            return ctx.tellClient("agentFinished:", {qint64(steps.size())});
        const ScenarioStep &step = steps[index];
        try {
            if (!started)
                step.run(ctx);
        } catch (const zt::Exception &e) {
            QTextStream(stderr) << step.name << ": " << e.name() << ": " << e.reason() << Qt::endl;
        }
        if (step.until && !step.until(ctx)) {
            if (!deadline.hasExpired())
                return QTimer::singleShot(5, [this, index, deadline] { run(index, deadline, true); });
            QTextStream(stderr) << step.name << ": timed out" << Qt::endl;
        }
        ctx.tellClient("agentCompletedStep:snapshot:", {step.name, ctx.snapshot()});
        run(index + 1, QDeadlineTimer(5000));
    }
    void hostDidLoseClient(ZTAgentHost *host, VDConnection *) override
    {
        if (host->clients().isEmpty())
            QCoreApplication::quit();
    }
};

struct Events : ZTClientNodeDelegate
{
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(3); }
};

int runAgent(QCoreApplication &app)
{
    zt::process::setApplicationIdentifier(u"com.zintaro.ModelScenarioAgent"_s);
    Agent agent;
    auto directory = made<AgentNetworkDirectory>(); // first: its fixed UUID is shared
    auto root = made<ScenarioRoot>();
    agent.ctx.root = root.get();
    agent.ctx.directory = directory.get();
    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(root.get(), &agent);
    static zt::Protocol protocol = ZTRootObject::clientRootProtocol();
    protocol.addMethod("agentCompletedStep:snapshot:", zt::MethodSignature::fromTypes("v@:@@"));
    protocol.addMethod("agentFinished:", zt::MethodSignature::fromTypes("v@:@"));
    protocol.addMethod("agentAsksClientToPerform:onObjectWithID:", zt::MethodSignature::fromTypes("v@:@@"));
    host->setClientProtocol(&protocol);
    // The client's initial state in pieces: three identities the root holds
    // before it connects reach it as one in the handshake and two insertions,
    // and the first step's snapshot compares them.
    host->setInitialStatePieceSize(1);
    for (const QString &name : {u"early-1"_s, u"early-2"_s, u"early-3"_s}) {
        auto identity = made<AgentSelfIdentity>();
        setKeys(identity.get(), {u"username"_s, name, u"realname"_s, name.toUpper()});
        agent.ctx.adopt(name, identity);
    }
    if (!host->listen(u"127.0.0.1"_s, 0))
        return 1;
    out << "LISTENING " << host->port() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    host->close();
    root->invalidateAll();
    invalidateNetworkDirectory(directory.get());
    return rc;
}

int runClient(QCoreApplication &app, quint16 port)
{
    zt::process::setApplicationIdentifier(u"com.zintaro.ModelScenario"_s);
    auto directory = made<ClientNetworkDirectory>(); // first: its fixed UUID is shared
    Events events;
    zt::Ref<ZTClientNode> node = ZTClientNode::create<ScenarioRoot>(&events);
    node->setRootClass(ScenarioClientRoot::staticClassInfo());
    if (!node->connectToHost(u"127.0.0.1"_s, port))
        return 1;
    QTimer::singleShot(30000, &app, [] { QCoreApplication::exit(4); });
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    if (auto *root = node->mirror<ScenarioRoot>())
        root->invalidateAll();
    node->close();
    invalidateNetworkDirectory(directory.get());
    return rc;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 64;
    const QByteArray arg(argv[1]);
    return arg == "--agent" ? runAgent(app) : runClient(app, quint16(arg.toUInt()));
}

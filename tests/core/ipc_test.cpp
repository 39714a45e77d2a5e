// The mirroring core: UUIDs and the directory, archives, the change messages
// and block observation.

#include "core/ztapplication.h"
#include "core/ztdirectory.h"
#include "runtime/plist_test_support.h"
#include "runtime/process.h"
#include "support/log_capture.h"
#include "support/test_model.h"

// The other process's root object, as far as the proxy can tell: it accepts
// the eight change messages and any forwarded call, and records them.
class RecordingRoot : public zt::Object
{
    ZT_OBJECT(RecordingRoot, zt::Object)
public:
    struct Call
    {
        QByteArray selector;
        QVariantList arguments;
    };
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &sel) const override
    {
        zt::MethodSignature s = ZTIPCProxy::agentChangeProtocol().methodSignature(sel);
        if (!s.isValid())
            s = ZTIPCProxy::clientChangeProtocol().methodSignature(sel);
        return s.isValid() ? s : Object::methodSignatureForSelector(sel);
    }
    void forwardInvocation(zt::Invocation &invocation) override
    {
        calls.append({invocation.selector(), invocation.arguments()});
    }
    QList<Call> calls;
};

// Plays the agent or the client for the length of one test, as the delegate
// whose counterpart is a recording root.
class CoreTest : public testing::Test, public ZTApplicationDelegate
{
public:
    zt::Object *counterpart() const override { return root.get(); }
    QVariant clientID() const override { return QStringLiteral("client-7"); }

protected:
    void playRole(bool agent)
    {
        zt::process::setApplicationIdentifier(agent ? QStringLiteral("com.zintaro.Zintaro2Agent")
                                                    : QStringLiteral("com.zintaro.Zintaro2"));
        ZTIPCProxy::resetCachedProcessRole();
    }
    void SetUp() override
    {
        playRole(true);
        ZTApplication::setDelegate(this);
    }
    void TearDown() override
    {
        for (const zt::Ref<TestNode> &o : made)
            if (o)
                o->invalidate();
        ZTApplication::setDelegate(nullptr);
        ZTAbstractIPC::enableRegistration();
        ZTAbstractIPC::setRecreateDescriptions(false);
        zt::process::setApplicationIdentifier(QString());
        ZTIPCProxy::resetCachedProcessRole();
    }
    // Objects made through these leave the directory when the test ends.
    zt::Ref<TestNode> agentObject()
    {
        auto o = zt::make<TestNode>();
        o->init();
        made.append(o);
        return o;
    }
    zt::Ref<TestNode> mirror(const QString &id)
    {
        return made.emplace_back(
            zt::dynamicCast<TestNode>(ZTAbstractIPC::createCounterpartWithUUID<TestNode>(id)));
    }
    zt::Ref<TestNode> unarchived(const QByteArray &data)
    {
        return made.emplace_back(zt::fromValue<zt::Ref<TestNode>>(
            zt::KeyedUnarchiver::unarchiveObjectWithData(data).value_or(QVariant())));
    }
    QList<RecordingRoot::Call> &calls() { return root->calls; }
    void expectCalls(std::initializer_list<RecordingRoot::Call> expected)
    {
        ASSERT_EQ(calls().size(), qsizetype(expected.size()));
        qsizetype i = 0;
        for (const RecordingRoot::Call &call : expected) {
            SCOPED_TRACE(call.selector.constData());
            EXPECT_EQ(calls()[i].selector, call.selector);
            EXPECT_TRUE(zt::valuesEqual(calls()[i].arguments, call.arguments))
                << qPrintable(zt::describe(calls()[i].arguments));
            ++i;
        }
        calls().clear();
    }

    zt::Ref<RecordingRoot> root = zt::make<RecordingRoot>();
    QList<zt::Ref<TestNode>> made;
};

ZT_DEFINE_CLASS(RecordingRoot)

using namespace zt;

// Agent objects get fresh UUIDs (their form is the UUID generator's test) and
// are registered under them; registration off makes volatile objects that
// never send.
TEST_F(CoreTest, AgentObjectsAreRegisteredUnlessRegistrationIsOff)
{
    auto a = agentObject();
    EXPECT_NE(a->description(), agentObject()->description());
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(a->description()).get(), a.get());
    EXPECT_TRUE(a->enableInterProcessKVO());
    a->setName(QStringLiteral("unseen")); // no dictionary form yet: nobody can mirror it
    EXPECT_TRUE(calls().isEmpty());
    a->dictionary();
    a->setName(QStringLiteral("seen"));
    EXPECT_EQ(std::exchange(calls(), {}).size(), 1);
    // Invalidating twice leaves the directory once and keeps the proxy.
    ZTIPCProxy *proxy = a->counterpart();
    a->invalidate();
    a->invalidate();
    EXPECT_EQ(a->nilified, 1);
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(a->description()), nullptr);
    EXPECT_EQ(a->counterpart(), proxy);

    ZTAbstractIPC::disableRegistration();
    auto v = agentObject();
    ZTAbstractIPC::enableRegistration();
    EXPECT_FALSE(v->inDirectory());
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(v->description()), nullptr);
    EXPECT_EQ(v->counterpart(), nullptr);
    v->setName(QStringLiteral("dropped"));
    EXPECT_TRUE(calls().isEmpty());
    v->invalidate(); // not registered: nothing happens
    EXPECT_EQ(v->nilified, 0);

    // The dictionary initialiser overwrites the text, not the entry.
    auto n = make<TestNode>();
    n->initWithDictionary({{QStringLiteral("description"), QStringLiteral("FROM-DICT")},
                           {QStringLiteral("name"), QStringLiteral("n")}});
    EXPECT_EQ(n->description(), QStringLiteral("FROM-DICT"));
    EXPECT_EQ(n->name(), QStringLiteral("n"));
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(QStringLiteral("FROM-DICT")), nullptr);
    ASSERT_FALSE(n->registeredUUID().isEmpty());
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(n->registeredUUID()).get(), n.get());
    n->invalidate(); // leaves the entry it was registered under
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(n->registeredUUID()), nullptr);
}

TEST_F(CoreTest, UuidAndDirectoryRulesAndTheirAssertionTexts)
{
    struct Row
    {
        const char *name;
        bool agent;
        std::function<void()> action;
        QString reason, exception = QStringLiteral("NSInternalInconsistencyException");
    };
    const Row rows[] = {
        {"client init without a UUID", false, [] { make<TestNode>()->init(); },
         QStringLiteral("Counterpart should have a description set")},
        {"initWithUUID in the agent", true, [] { make<TestNode>()->initWithUUID(QStringLiteral("X")); },
         QStringLiteral("Agent cannot call initWithUUID:")},
        {"empty counterpart UUID", false,
         [] { ZTAbstractIPC::createCounterpartWithUUID<TestNode>(QString()); },
         QStringLiteral("Cannot create a counterpart with null UUID")},
        {"static UUID assigned twice", false,
         [] { make<TestSingleton>()->initWithUUID(QStringLiteral("ignored")); },
         QStringLiteral("Cannot assign UUID to TEST-SINGLETON-UUID which is already in directory"),
         QStringLiteral("AssignUUID Inconsistency")},
        {"register nothing", true, [] { ZTDirectory::sharedInstance()->registerObject(nullptr); },
         QStringLiteral("Directory can't register a null object")},
        {"register no UUID", true,
         [] { ZTDirectory::sharedInstance()->registerObject(make<TestNode>().get()); },
         QStringLiteral("Directory can't register a null-description object")},
        {"unregister nothing", true, [] { ZTDirectory::sharedInstance()->unregisterObject(nullptr); },
         QStringLiteral("Directory can't unregister a null object")},
        {"unregister no UUID", true, [] { ZTDirectory::sharedInstance()->unregisterObjectWithID(QString()); },
         QStringLiteral("Directory can't unregister a null-description object")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        playRole(row.agent);
        const auto [name, reason] = zttest::raised(row.action);
        EXPECT_EQ(name, row.exception);
        EXPECT_EQ(reason, row.reason);
        ZTDirectory::sharedInstance()->unregisterObjectWithID(QStringLiteral("TEST-SINGLETON-UUID"));
    }
}

// The first registration of an ID wins, whatever class is asked for. Repeated
// look-ups with one string are remembered; whatever leaves the directory
// (invalidated, torn down while registered) is never answered again, also when
// another object takes its ID.
TEST_F(CoreTest, TheFirstRegistrationIsAnsweredUntilItLeaves)
{
    ZTDirectory *dir = ZTDirectory::sharedInstance();
    playRole(false);
    const QString owned = QString::fromLatin1("RECENT-%1").arg(1); // owns its characters
    const QStringList ids{QStringLiteral("SAME"), owned, owned};
    for (const QString &id : ids) {
        SCOPED_TRACE(qPrintable(id));
        auto first = mirror(id);
        EXPECT_EQ(first->description(), id);
        EXPECT_FALSE(first->enableInterProcessKVO());
        EXPECT_EQ(ZTAbstractIPC::createCounterpartWithUUID<TestSingleton>(id).get(), first.get());
        auto second = make<TestNode>();
        second->initWithUUID(id);
        EXPECT_EQ(dir->objectWithID(id).get(), first.get());
        EXPECT_EQ(dir->objectWithID(id).get(), first.get());
        EXPECT_EQ(dir->channelWithID(id).get(), first.get());
        first->invalidate();
        second->invalidate(); // not in the directory: leaves the first's entry alone
        EXPECT_EQ(dir->objectWithID(id), nullptr);
    }
    EXPECT_EQ(dir->objectWithID(QString()), nullptr);
    EXPECT_EQ(dir->objectWithID(QStringLiteral("unknown")), nullptr);

    zttest::LogCapture log;
    {
        auto torn = ZTAbstractIPC::createCounterpartWithUUID<TestNode>(owned);
        EXPECT_EQ(dir->objectWithID(owned).get(), torn.get());
    }
    EXPECT_EQ(dir->objectWithID(owned), nullptr);
}

TEST_F(CoreTest, ArchivesKeepOrRecreateTheUuid)
{
    auto n = agentObject();
    n->setName(QStringLiteral("archived"));
    const QString uuid = n->description();
    const QByteArray data = KeyedArchiver::archivedDataWithRootObject(objectValue(n.get()));
    n->invalidate();

    auto back = unarchived(data);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->description(), uuid);
    EXPECT_EQ(back->name(), QStringLiteral("archived"));
    EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(uuid).get(), back.get());

    // An older archive layout stored the UUID under "description" only.
    auto old = unarchived(plisttest::archiveWith(
        {QStringLiteral("$null"),
         QVariantMap{{QStringLiteral("$class"), plisttest::uid(3)},
                     {QStringLiteral("description"), plisttest::uid(2)}},
         QStringLiteral("OLD-UUID"),
         QVariantMap{{QStringLiteral("$classname"), QStringLiteral("TestNode")},
                     {QStringLiteral("$classes"), QVariantList{QStringLiteral("TestNode")}}}}));
    ASSERT_TRUE(old);
    EXPECT_EQ(old->description(), QStringLiteral("OLD-UUID"));

    ZTAbstractIPC::setRecreateDescriptions(true); // until the test ends
    auto fresh = unarchived(data);
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh->description(), uuid);
}

TEST_F(CoreTest, DirectingClientsSendTheFourClientMessagesLedByTheirId)
{
    playRole(false);
    auto node = mirror(QStringLiteral("C-1"));
    auto child = mirror(QStringLiteral("C-2"));
    node->setCount(5); // not directing: nothing goes out
    EXPECT_TRUE(calls().isEmpty());

    node->startDirectingKVOCommunication(); // the mirror is told to stop sending
    expectCalls({{"toAgent_TestNode_C-1_setEnableInterProcessKVO:", {false}}});

    node->setCount(6);
    auto children = node->mutableArrayValueForKey(QStringLiteral("children"));
    children.addObject(objectValue(child.get()));
    children.replaceObjectAtIndex(0, objectValue(child.get()));
    children.removeAllObjects();
    const QVariant cid = QStringLiteral("client-7"), key = QStringLiteral("childDictionaries");
    const QVariantList dicts{child->dictionary()};
    expectCalls({
        {"client:didChangeValue:forKey:objectID:",
         {cid, qint64(6), QStringLiteral("count"), QStringLiteral("C-1")}},
        {"client:didInsertValues:atIndexes:forKey:objectID:",
         {cid, dicts, QVariant::fromValue(IndexSet{0}), key, QStringLiteral("C-1")}},
        {"client:didReplaceValuesAtIndexes:withValues:forKey:objectID:",
         {cid, QVariant::fromValue(IndexSet{0}), dicts, key, QStringLiteral("C-1")}},
        {"client:didRemoveValuesAtIndexes:forKey:objectID:",
         {cid, QVariant::fromValue(IndexSet{0}), key, QStringLiteral("C-1")}},
    });
    node->setDescription(QStringLiteral("C-9")); // renamed: later messages name the new UUID
    node->stopDirectingKVOCommunication();
    expectCalls({{"toAgent_TestNode_C-9_setEnableInterProcessKVO:", {true}}});
}

// Changes that cannot cross are dropped with a log line; of the model objects
// under a raw to-many key ("children", not mapped to dictionaries), an
// insertion is dropped whole but a removal is sent, and kind 1 on the mapped
// key sends the whole current value.
TEST_F(CoreTest, UnwireableChangesAreDroppedWithTheirLogLines)
{
    auto n = agentObject();
    auto other = agentObject();
    n->dictionary(); // published
    n->mutableArrayValueForKey(QStringLiteral("children")).addObject(objectValue(other.get()));
    calls().clear();
    zttest::LogCapture log;

    n->setBuddy(other); // a model object under an unmapped key
    n->counterpart()->agentDidChangeValuesAtIndexesForKey(7, IndexSet{0}, QStringLiteral("name"));
    n->counterpart()->agentDidChangeValuesAtIndexesForKey(2, IndexSet{0}, QStringLiteral("children"));
    EXPECT_TRUE(calls().isEmpty());
    for (const char *reason : {"class TestNode is unsupported (key buddy in TestNode)",
                               "7 is an unsupported mutation type in TestNode:name",
                               "(\n    TestNode\n) is unsupported (key children in TestNode)"})
        EXPECT_TRUE(
            log.contains(QStringLiteral("*** Ignored remote KVO because ") + QLatin1StringView(reason)))
            << qPrintable(log.lines().join(u'\n'));

    n->counterpart()->agentDidChangeValuesAtIndexesForKey(3, IndexSet{0}, QStringLiteral("children"));
    n->counterpart()->agentDidChangeValuesAtIndexesForKey(1, IndexSet{0},
                                                          QStringLiteral("childDictionaries"));
    const QString id = n->description();
    expectCalls({
        {"agentDidRemoveValuesAtIndexes:forKey:objectID:",
         {QVariant::fromValue(IndexSet{0}), QStringLiteral("children"), id}},
        {"agentDidChangeValue:forKey:objectID:",
         {QVariantList{other->dictionary()}, QStringLiteral("childDictionaries"), id}},
    });
}

TEST_F(CoreTest, TokensObserveForTheirLifetime)
{
    auto n = agentObject();
    QStringList seen;
    auto token = observeKeyPathOptionsHandler(n.get(), QStringLiteral("name"),
                                              ObservingOption::New | ObservingOption::Old,
                                              [&](Object *o, const KVOChange &c) {
                                                  EXPECT_EQ(o, n.get());
                                                  seen.append(c.newValue.toString());
                                              });
    n->setName(QStringLiteral("a"));
    token->setHandler(nullptr); // still registered, does nothing
    n->setName(QStringLiteral("b"));
    EXPECT_TRUE(n->hasObservers());
    token.reset(); // ends the observation
    EXPECT_FALSE(n->hasObservers());
    n->setName(QStringLiteral("c"));
    EXPECT_EQ(seen, QStringList{QStringLiteral("a")});

    // A token made and dropped at once never calls its handler.
    int calls = 0;
    VDKVO::observeAtKeyPathOptionsHandler(n.get(), QStringLiteral("name"), {},
                                          [&](Object *, const KVOChange &) { ++calls; });
    n->setName(QStringLiteral("d"));
    EXPECT_EQ(calls, 0);

    // Tokens kept in the object's set end with invalidate.
    n->addObservationToken(observeKeyPathOptionsHandler(n.get(), QStringLiteral("count"), {},
                                                        [&](Object *, const KVOChange &) { ++calls; }));
    n->setCount(1);
    n->invalidate();
    n->setCount(2);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(n->hasObservers());
}

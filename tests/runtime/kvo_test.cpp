// Key-value observation: options, duplicates, removal rules, key paths and
// dependent keys.

#include "support/test_model.h"

using namespace zt;

TEST(KeyValueObserving, DeliversWhatTheOptionsAskFor)
{
    const QVariant before = QStringLiteral("before"), after = QStringLiteral("after");
    const struct
    {
        const char *name;
        ObservingOptions options;
        int notes;                   // for one setting of "name", plus the initial one
        bool firstIsPrior;           // the first notification is the prior one
        QVariant newValue, oldValue; // in the last notification
    } rows[] = {
        {"none", {}, 1, false, {}, {}},
        {"new", ObservingOption::New, 1, false, after, {}},
        {"old", ObservingOption::Old, 1, false, {}, before},
        {"newAndOld", ObservingOption::New | ObservingOption::Old, 1, false, after, before},
        {"initialNew", ObservingOption::Initial | ObservingOption::New, 2, false, after, {}},
        {"prior", ObservingOption::Prior | ObservingOption::Old, 2, true, {}, before},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto s = make<Sample>();
        s->setName(before.toString());
        auto rec = make<Recorder>();
        int marker = 0;
        s->addObserver(rec.get(), QStringLiteral("name"), row.options, &marker);
        s->setName(after.toString());
        ASSERT_EQ(rec->notes.size(), row.notes);
        EXPECT_EQ(rec->notes.first().change.isPrior, row.firstIsPrior);
        const auto &last = rec->notes.last();
        EXPECT_EQ(last.keyPath, QStringLiteral("name"));
        EXPECT_EQ(last.context, &marker);
        EXPECT_FALSE(last.change.isPrior);
        EXPECT_EQ(last.change.kind, KeyValueChange::Setting);
        EXPECT_TRUE(valuesEqual(last.change.newValue, row.newValue))
            << qPrintable(describe(last.change.newValue));
        EXPECT_TRUE(valuesEqual(last.change.oldValue, row.oldValue))
            << qPrintable(describe(last.change.oldValue));
        s->removeObserver(rec.get(), QStringLiteral("name"), &marker);
    }
}

TEST(KeyValueObserving, DuplicateRegistrationsCountTwiceAndNeedTwoRemovals)
{
    auto s = make<Sample>();
    auto rec = make<Recorder>();
    s->addObserver(rec.get(), QStringLiteral("count"));
    s->addObserver(rec.get(), QStringLiteral("count"));
    s->setCount(1);
    EXPECT_EQ(rec->notes.size(), 2);
    s->removeObserver(rec.get(), QStringLiteral("count"));
    s->setCount(2);
    EXPECT_EQ(rec->notes.size(), 3);
    s->removeObserver(rec.get(), QStringLiteral("count"));
    s->setCount(3);
    EXPECT_EQ(rec->notes.size(), 3);
    EXPECT_FALSE(s->hasObservers());
    QString reason;
    EXPECT_EQ(raisedName([&] { s->removeObserver(rec.get(), QStringLiteral("count")); }, &reason),
              QStringLiteral("NSRangeException"));
    EXPECT_TRUE(reason.contains(QStringLiteral("because it is not registered as an observer.")));
}

TEST(KeyValueObserving, AnObserverMayRemoveRegistrationsWhileBeingTold)
{
    auto s = make<Sample>();
    auto first = make<Recorder>();
    auto second = make<Recorder>();
    s->addObserver(first.get(), QStringLiteral("count"));
    s->addObserver(second.get(), QStringLiteral("count"));
    // The first observer removes both registrations during the notification:
    // the second, already in the snapshot, is skipped, and nothing dangles.
    first->onNote = [&] {
        s->removeObserver(first.get(), QStringLiteral("count"));
        s->removeObserver(second.get(), QStringLiteral("count"));
    };
    s->setCount(1);
    EXPECT_EQ(first->notes.size(), 1);
    EXPECT_EQ(second->notes.size(), 0);
    s->setCount(2);
    EXPECT_EQ(first->notes.size(), 1);
}

TEST(KeyValueObserving, KeyPathsFollowTheCurrentIntermediateObject)
{
    auto root = make<Sample>();
    auto a = make<Sample>();
    auto b = make<Sample>();
    root->setChild(a);
    auto rec = make<Recorder>();
    root->addObserver(rec.get(), QStringLiteral("child.name"), ObservingOption::New | ObservingOption::Old);

    a->setName(QStringLiteral("a1"));
    root->setChild(b);                // path now ends at b
    a->setName(QStringLiteral("a2")); // no longer observed
    b->setName(QStringLiteral("b1"));

    ASSERT_EQ(rec->notes.size(), 3);
    EXPECT_EQ(rec->notes[0].change.newValue.toString(), QStringLiteral("a1"));
    EXPECT_TRUE(isNullMarker(rec->notes[1].change.newValue)); // b has no name yet
    EXPECT_EQ(rec->notes[1].change.oldValue.toString(), QStringLiteral("a1"));
    EXPECT_EQ(rec->notes[2].change.newValue.toString(), QStringLiteral("b1"));
    root->removeObserver(rec.get(), QStringLiteral("child.name"));
    b->setName(QStringLiteral("b2"));
    EXPECT_EQ(rec->notes.size(), 3);
    EXPECT_FALSE(b->hasObservers());
}

TEST(KeyValueObserving, DependentKeysAreAnnouncedThroughTheirKeyPaths)
{
    auto root = make<Sample>();
    auto a = make<Sample>();
    root->setChild(a);
    auto rec = make<Recorder>();
    root->addObserver(rec.get(), QStringLiteral("title"), ObservingOption::New);

    root->setName(QStringLiteral("r")); // "name" affects "title"
    a->setName(QStringLiteral("x"));    // "child.name" affects "title"
    auto b = make<Sample>();
    b->setName(QStringLiteral("y"));
    root->setChild(b);                  // the path re-wires to b
    a->setName(QStringLiteral("gone")); // a no longer matters
    b->setName(QStringLiteral("z"));

    QStringList titles;
    for (const auto &n : rec->notes)
        titles.append(n.change.newValue.toString());
    EXPECT_EQ(titles, (QStringList{QStringLiteral("r/"), QStringLiteral("r/x"), QStringLiteral("r/y"),
                                   QStringLiteral("r/z")}));
    root->removeObserver(rec.get(), QStringLiteral("title"));
    EXPECT_FALSE(a->hasObservers());
}

TEST(KeyValueObserving, AnObservedObjectGoingAwayIsForgottenByPathsThroughIt)
{
    auto root = make<Sample>();
    auto rec = make<Recorder>();
    {
        auto a = make<Sample>();
        root->setChild(a);
        root->addObserver(rec.get(), QStringLiteral("child.name"));
    }
    root->setChild(nullptr); // frees a, which a trigger of root's observation watched
    root->setName(QStringLiteral("unrelated"));
    EXPECT_EQ(rec->notes.size(), 1);
    root->removeObserver(rec.get(), QStringLiteral("child.name"));
}

TEST(KeyValueObserving, AnObserverThatDoesNotHandleNotificationsRaises)
{
    auto s = make<Sample>();
    auto plain = make<Sample>();
    s->addObserver(plain.get(), QStringLiteral("count"));
    QString reason;
    EXPECT_EQ(raisedName([&] { s->setCount(1); }, &reason),
              QStringLiteral("NSInternalInconsistencyException"));
    EXPECT_TRUE(reason.contains(QStringLiteral(": An -observeValueForKeyPath:ofObject:change:context: "
                                               "message was received but not handled.\nKey path: count")));
    s->removeObserver(plain.get(), QStringLiteral("count"));
}

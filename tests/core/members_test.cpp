// Members declared in the class body: accessors, selectors, announcements,
// the dictionary form, checked to-many mutators and declared actions.

#include "core/ztabstractipc.h"
#include "runtime/members.h"
#include "runtime/process.h"
#include "support/raised.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

class Book : public ZTAbstractIPC
{
    ZT_OBJECT(Book, ZTAbstractIPC)
public:
    ZT_PROPERTY(QString, title, setTitle, zt::InDictionary::WhenNotNil)
};

class Shelf : public ZTAbstractIPC
{
    ZT_OBJECT(Shelf, ZTAbstractIPC)
public:
    ZT_PROPERTY(QString, label, setLabel, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(qint16, rank, setRank, zt::InDictionary::Always)
    ZT_PROPERTY_GET(quint64, port, setPort, zt::InDictionary::Always)
    ZT_PROPERTY(QString, note, setNote)
    ZT_WEAK(Shelf, parent, setParent)
    ZT_WIRED_TO_MANY(Book, books, Books, bookDictionaries, BookDictionaries)
    ZT_DEPENDENCY("summary", "label", "rank")
    QString summary() const { return label() + QString::number(rank()); }
    ZT_READONLY_KEY(summary)
    void shout(const QString &text) { m_heard = text; }
    ZT_ACTION("shout:", shout)

    virtual std::optional<QList<zt::Ref<Book>>>
    replacementObjectsForBookDictionaries(const QVariantList &list)
    {
        QList<zt::Ref<Book>> books;
        for (const QVariant &d : list) {
            auto book = zt::make<Book>();
            book->initWithDictionary(d.toMap());
            books.append(book);
        }
        return books;
    }
    QString m_heard;
};

ZT_DEFINE_CLASS(Book)
ZT_DEFINE_CLASS(Shelf)

quint64 Shelf::port() const
{
    return m_port ? m_port : 6667;
}

zt::Ref<Book> book(const QString &title)
{
    auto b = zt::make<Book>();
    b->init();
    b->setTitle(title);
    return b;
}

// Objects here are the agent's: they invent their UUIDs.
class DeclaredMembers : public testing::Test
{
protected:
    void SetUp() override
    {
        zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2Agent"));
        ZTIPCProxy::resetCachedProcessRole();
    }
};

} // namespace

// The refusal's log line is pinned in vdconnection_test.cpp.
TEST_F(DeclaredMembers, DictionaryFormHoldsDeclaredKeysByPresenceAndOnlyActionsAreForwarded)
{
    auto shelf = zt::make<Shelf>();
    shelf->init();
    shelf->setNote(u"not in the dictionary"_s);
    QVariantMap d = shelf->dictionary();
    EXPECT_EQ(d.keys(), (QStringList{u"description"_s, u"port"_s, u"rank"_s}));
    EXPECT_EQ(d.value(u"port"_s).toULongLong(), 6667u); // through the class's own getter
    shelf->setLabel(u"A"_s);
    shelf->setRank(3);
    d = shelf->dictionary();
    EXPECT_EQ(d.value(u"label"_s).toString(), u"A"_s);
    EXPECT_EQ(d.value(u"rank"_s).toInt(), 3);
    EXPECT_EQ(shelf->valueForKey(u"summary"_s).toString(), u"A3"_s);
    EXPECT_TRUE(ZTIPCProxy::forwardedAction(shelf.get(), "shout:"));
    EXPECT_FALSE(ZTIPCProxy::forwardedAction(shelf.get(), "removeBooksAtIndexes:"));
    shelf->invalidate();
}

TEST_F(DeclaredMembers, ToManyMutatorsCheckTheirIndexesWhoeverCalls)
{
    const struct
    {
        const char *name;
        std::function<void(Shelf &)> change;
        QStringList after;
        QString raised; // "name: reason", or nothing
    } rows[] = {
        {"insert in the middle",
         [](Shelf &s) { s.insertBooksAtIndexes({book(u"x"_s)}, zt::IndexSet(1)); },
         {u"a"_s, u"x"_s, u"b"_s}},
        {"insert past the end",
         [](Shelf &s) { s.insertBooksAtIndexes({book(u"x"_s)}, zt::IndexSet(3)); },
         {u"a"_s, u"b"_s},
         u"NSRangeException: *** -[Shelf insertBooks:atIndexes:]: index 3 beyond bounds [0 .. 2]"_s},
        {"fewer objects than indexes",
         [](Shelf &s) { s.insertBooksAtIndexes({}, zt::IndexSet(0)); },
         {u"a"_s, u"b"_s},
         u"NSInvalidArgumentException: *** -[Shelf insertBooks:atIndexes:]: 0 objects (none nil) for 1 "
         u"indexes required"_s},
        {"a nil object",
         [](Shelf &s) { s.insertBooksAtIndexes({zt::Ref<Book>()}, zt::IndexSet(0)); },
         {u"a"_s, u"b"_s},
         u"NSInvalidArgumentException: *** -[Shelf insertBooks:atIndexes:]: 1 objects (none nil) for 1 "
         u"indexes required"_s},
        {"remove past the end",
         [](Shelf &s) {
             s.removeBooksAtIndexes(zt::IndexSet({0, 4}));
         },
         {u"a"_s, u"b"_s},
         u"NSRangeException: *** -[Shelf removeBooksAtIndexes:]: index 4 beyond bounds [0 .. 1]"_s},
        {"replace past the end",
         [](Shelf &s) { s.replaceBooksAtIndexesWithBooks(zt::IndexSet(2), {book(u"x"_s)}); },
         {u"a"_s, u"b"_s},
         u"NSRangeException: *** -[Shelf replaceBooksAtIndexes:withBooks:]: index 2 beyond bounds [0 .. 1]"_s},
        {"remove by key-value coding", [](Shelf &s) { s.mutableBooks().removeObjectAtIndex(0); }, {u"b"_s}},
        {"wired insertion",
         [](Shelf &s) {
             s.insertBookDictionariesAtIndexes({QVariantMap{{u"title"_s, u"w"_s}}}, zt::IndexSet(2));
         },
         {u"a"_s, u"b"_s, u"w"_s}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto shelf = zt::make<Shelf>();
        shelf->init();
        shelf->setBooks({book(u"a"_s), book(u"b"_s)});
        const auto [name, reason] = zttest::raised([&] { row.change(*shelf); });
        EXPECT_EQ(name.isEmpty() ? QString() : name + u": "_s + reason, row.raised);
        QStringList titles;
        for (const auto &b : shelf->books())
            titles.append(b->title());
        EXPECT_EQ(titles, row.after);
        shelf->invalidate();
    }
}

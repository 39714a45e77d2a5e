// Method and accessor look-ups: they are cached per thread by the identity of
// the name's characters and per class in tables that grow while in use. These
// check that no cached answer outlives what it was made from.

#include "support/test_model.h"

#include <atomic>
#include <cstring>
#include <thread>

using namespace zt;

namespace {

const auto entry = [](const char *selector) {
    return MethodEntry{Selector(selector), MethodSignature::of<void>(),
                       [](Object *, const QVariant *) { return QVariant(); }};
};

constexpr auto registerPing = +[](ClassInfo &c) { c.addMethod(entry("ping")); };
constexpr auto registerPong = +[](ClassInfo &c) { c.addMethod(entry("pong")); };

// "k0" … "k63", each a getter: enough keys to make the accessor table grow.
constexpr int KeyCount = 64;
constexpr auto registerManyKeys = +[](ClassInfo &c) {
    for (int i = 0; i < KeyCount; ++i)
        c.addMethod(entry(QByteArray("k" + QByteArray::number(i)).constData()));
};

const auto getterOf = [](const ClassInfo &c, const QString &key) {
    const MethodEntry *getter = c.accessorsForKey(key).getter;
    return getter ? getter->selector : QByteArray("(none)");
};

} // namespace

TEST(MethodLookUp, AnswersComeFromTheClassAndTheNamesText)
{
    // Each class is made where the previous one was just freed, often at the
    // same address; the same selector objects are asked every time.
    const Selector ping("ping"), pong("pong");
    for (int i = 0; i < 64; ++i) {
        const bool odd = i % 2;
        auto c = std::make_unique<ClassInfo>("LookUpProbe", &Object::staticClassInfo(), nullptr,
                                             odd ? registerPong : registerPing);
        SCOPED_TRACE(i);
        EXPECT_EQ(c->instanceMethod(ping) != nullptr, !odd);
        EXPECT_EQ(c->instanceMethod(pong) != nullptr, odd);
        EXPECT_EQ(c->instanceMethod(ping) != nullptr, !odd);  // again, from the cache
        EXPECT_NE(c->instanceMethod("description"), nullptr); // inherited
    }

    // Names are matched by their text, whatever holds it.
    ClassInfo c("LookUpText", &Object::staticClassInfo(), nullptr, registerPing);
    char buffer[] = "pong";
    const QByteArray raw = QByteArray::fromRawData(buffer, 4);
    EXPECT_EQ(c.instanceMethod(raw), nullptr);
    std::memcpy(buffer, "ping", 4); // same object, same address, other text
    ASSERT_NE(c.instanceMethod(raw), nullptr);
    EXPECT_EQ(c.instanceMethod(raw)->selector, "ping");

    struct Row
    {
        const char *name;
        Selector selector;
        bool found;
    } rows[] = {
        {"owning", Selector("ping"), true},
        {"literal", QByteArrayLiteral("ping"), true},
        {"longer", Selector("pings"), false},
        {"prefix", Selector("pin"), false},
        {"empty", Selector(), false},
        {"long, differing in the last byte", Selector("description:"), false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(c.instanceMethod(row.selector) != nullptr, row.found);
    }
}

TEST(AccessorLookUp, AKeyFreedAndAnotherMadeInItsPlaceFindsItsOwnAccessors)
{
    // "name" and "tags" have the same length: a freed key's block is the
    // likeliest place for the next one. Unknown keys resolve to nothing, also
    // when asked again; a key with only dependencies is still found.
    const ClassInfo &c = Sample::staticClassInfo();
    for (int i = 0; i < 256; ++i) {
        const char *text = i % 2 ? "tags" : "name";
        ASSERT_EQ(getterOf(c, QString::fromLatin1(text)), text) << i;
    }

    char16_t buffer[] = u"name";
    const QString raw = QString::fromRawData(reinterpret_cast<const QChar *>(buffer), 4);
    EXPECT_EQ(getterOf(c, raw), "name");
    std::memcpy(buffer, u"tags", sizeof buffer - sizeof(char16_t));
    EXPECT_EQ(getterOf(c, raw), "tags");

    for (const char *key : {"nothing", "nothing", "nam", ""}) {
        SCOPED_TRACE(key);
        const KeyAccessors &acc = c.accessorsForKey(QString::fromLatin1(key));
        EXPECT_EQ(acc.getter, nullptr);
        EXPECT_EQ(acc.setter, nullptr);
        EXPECT_TRUE(acc.affectingKeyPaths.isEmpty());
    }
    EXPECT_FALSE(c.accessorsForKey(QStringLiteral("title")).affectingKeyPaths.isEmpty());
}

TEST(AccessorLookUp, ThreadsResolvingKeysWhileTheTableGrowsAllSeeTheRightAccessors)
{
    ClassInfo c("LookUpMany", &Object::staticClassInfo(), nullptr, registerManyKeys);
    std::atomic<int> wrong{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&c, &wrong, t] {
                for (int round = 0; round < 4; ++round)
                    for (int i = 0; i < KeyCount; ++i) {
                        const int k = (i * (2 * t + 1) + round) % KeyCount; // each thread its own order
                        const QByteArray name = "k" + QByteArray::number(k);
                        if (getterOf(c, QString::fromLatin1(name)) != name)
                            ++wrong;
                    }
            });
    }
    EXPECT_EQ(wrong.load(), 0);
}

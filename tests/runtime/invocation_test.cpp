// Selectors, signatures, invocations and forwarding; object life cycle.

#include "runtime/format.h"
#include "support/object_access.h"
#include "support/test_model.h"

using namespace zt;

namespace {

// Answers one selector it does not define, through the forwarding hook.
class Forwarder : public Object
{
    ZT_OBJECT(Forwarder, Object)
public:
    MethodSignature methodSignatureForSelector(const Selector &sel) const override
    {
        return sel == "remote:value:" ? MethodSignature::fromTypes("@@:@q")
                                      : Object::methodSignatureForSelector(sel);
    }
    void forwardInvocation(Invocation &inv) override
    {
        forwarded.append(inv.selector());
        args = inv.arguments();
        inv.setReturnValue(QStringLiteral("answered"));
    }
    QList<Selector> forwarded;
    QVariantList args;
};

// Counts teardowns and takes a reference to itself during its own.
class Dying : public Object
{
    ZT_OBJECT(Dying, Object)
public:
    static inline int deallocs = 0;

protected:
    void dealloc() override
    {
        ++deallocs;
        Ref<Object> self(this); // must not free twice
        super::dealloc();
    }
};

} // namespace

ZT_DEFINE_CLASS(Forwarder)
ZT_DEFINE_CLASS(Dying)

TEST(Signature, TypeCodesComeFromTheMemberFunctionType)
{
    const struct Row
    {
        const char *selector;
        QByteArray types;
        qsizetype returnLength;
    } rows[] = {
        {"add:to:", "q@:qq", 8},
        {"flip:", "c@:c", 1},
        {"record:small:unsigned:real:", "v@:@sId", 0},
        {"name", "@@:", 8},
        {"setName:", "v@:@", 0},
        {"countOfItems", "Q@:", 8},
        {"insertItems:atIndexes:", "v@:@@", 0},
    };
    const ClassInfo &cls = Sample::staticClassInfo();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.selector);
        const MethodEntry *m = cls.instanceMethod(row.selector);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->signature.types(), row.types);
        EXPECT_EQ(m->signature.methodReturnLength(), row.returnLength);
        EXPECT_EQ(m->signature.numberOfArguments(), selectorArgumentCount(row.selector) + 2);
    }
    // The platform's type strings, with offsets and qualifiers.
    EXPECT_EQ(MethodSignature::fromTypes("v24@0:8@16").types(), QByteArray("v@:@"));
    const MethodSignature qualified = MethodSignature::fromTypes("v@:r@");
    EXPECT_EQ(qualified.argumentTypeAt(2), QByteArray("r@")); // matches no plain code
    EXPECT_FALSE(MethodSignature::fromTypes("v@").isValid());
    EXPECT_FALSE(MethodSignature::fromTypes("").isValid());
}

// Calls by perform (arguments coerced to the signature) and by an invocation
// object (dispatched through the class table).
TEST(Invocation, CallsFollowTheSignature)
{
    auto s = make<Sample>();
    EXPECT_EQ(s->perform("add:to:", {QVariant(2.0), QVariant(quint64(40))}).toLongLong(), 42);
    EXPECT_EQ(kindOf(s->perform("flip:", {QVariant(qint64(2))})), ValueKind::Bool); // 2 is true
    EXPECT_FALSE(s->perform("flip:", {QVariant(qint64(2))}).toBool());
    s->perform("record:small:unsigned:real:", {QStringLiteral("t"), qint64(70000), qint64(-1), qint64(3)});
    // 70000 is truncated to 16 bits and -1 to 32, as a C call would.
    EXPECT_EQ(s->calls, (QList<QVariantList>{{QStringLiteral("t"), qint16(4464), 0xFFFFFFFFu, 3.0}}));

    Invocation inv(s->methodSignatureForSelector("add:to:"));
    inv.setSelector("add:to:");
    inv.setTarget(s.get());
    inv.setArgumentAtIndex(1, 2);
    inv.setArgumentAtIndex(2, 3);
    inv.invoke();
    EXPECT_EQ(inv.returnValue().toLongLong(), 3);
    EXPECT_THROW(inv.setArgumentAtIndex(1, 4), Exception);
    EXPECT_THROW(inv.setArgumentAtIndex(1, 1), Exception);
    inv.invokeWithTarget(nullptr); // a message to nothing does nothing
}

TEST(Invocation, UnknownSelectorsGoToTheForwardingHook)
{
    auto f = make<Forwarder>();
    EXPECT_EQ(f->perform("remote:value:", {QStringLiteral("x"), 5}).toString(), QStringLiteral("answered"));
    EXPECT_EQ(f->forwarded, QList<Selector>{"remote:value:"});
    ASSERT_EQ(f->args, (QVariantList{QStringLiteral("x"), 5}));
    EXPECT_EQ(kindOf(f->args[1]), ValueKind::Signed);
    EXPECT_TRUE(f->respondsToSelector("description"));
    EXPECT_FALSE(f->respondsToSelector("remote:value:")); // forwarded, not defined

    QString reason;
    EXPECT_EQ(raisedName([&] { f->perform("nothing:", {1}); }, &reason), u"NSInvalidArgumentException");
    EXPECT_TRUE(reason.startsWith(
        QStringLiteral("-[Forwarder nothing:]: unrecognized selector sent to instance 0x")));
    EXPECT_THROW(f->perform("remote:value:", {1}), Exception); // wrong argument count
}

TEST(ObjectLifeCycle, TeardownRunsOnceEvenWhenItRetainsItself)
{
    Dying::deallocs = 0;
    {
        auto d = make<Dying>();
        Ref<Dying> second = d;
        EXPECT_EQ(zt::ObjectTestAccess::retainCount(*d), 2);
    }
    EXPECT_EQ(Dying::deallocs, 1);
}

TEST(Format, PrintsTheSystemsDirectives)
{
    auto s = make<Sample>();
    const struct Row
    {
        QString got, expected;
    } rows[] = {
        {format(u"%@ and %@", QStringLiteral("a"), QVariant()), QStringLiteral("a and (null)")},
        {format(u"%d|%ld|%lu|%u", -3, qint64(-4), quint64(5), 6u), QStringLiteral("-3|-4|5|6")},
        {format(u"%s/%@/%%/%c", "bytes", "text", 'x'), QStringLiteral("bytes/text/%/x")},
        {format(u"%5d|%-3d|%03d", 42, 7, 5), QStringLiteral("   42|7  |005")},
        {format(u"%@", QVariantList{1, QStringLiteral("two words")}),
         QStringLiteral("(\n    1,\n    \"two words\"\n)")},
        {format(u"%@", QVariant::fromValue(IndexSet{3, 5, 6, 7})),
         QStringLiteral("[number of indexes: 4 (in 2 ranges), indexes: (3 5-7)]")},
        {format(u"%@ %@", true, nullValue()), QStringLiteral("1 <null>")},
        {format(u"missing %@ %d"), QStringLiteral("missing (null) 0")},
        {format(u"%q unknown"), QStringLiteral("%q unknown")},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.got, row.expected);
    EXPECT_TRUE(format(u"%@", s).startsWith(QStringLiteral("<Sample: 0x")));
    EXPECT_TRUE(format(u"%p", static_cast<const void *>(s.get())).startsWith(QStringLiteral("0x")));
}

TEST(IndexSet, KeepsSortedDisjointRanges)
{
    IndexSet s;
    s.addRange(5, 3); // 5-7
    s.add(9);
    s.add(8);         // joins 5-7 and 9
    s.addRange(0, 2); // 0-1
    EXPECT_EQ(s.description(), QStringLiteral("(0-1 5-9)"));
    EXPECT_EQ(s.count(), 7u);
    s.removeRange(6, 2);
    EXPECT_EQ(s.description(), QStringLiteral("(0-1 5 8-9)"));
    EXPECT_TRUE(s.contains(8));
    EXPECT_FALSE(s.contains(7));
    EXPECT_EQ(s.toList(), (QList<quint64>{0, 1, 5, 8, 9}));
    s.addRange(~quint64(0) - 1, 10); // clamped, never wraps
    EXPECT_EQ(s.last(), ~quint64(0) - 1);
    IndexSet notFound;
    notFound.add(~quint64(0)); // "not found" cannot be held
    EXPECT_TRUE(notFound.isEmpty());
    EXPECT_EQ(notFound.begin(), notFound.end());
    EXPECT_EQ(IndexSet{}, IndexSet::fromRange(3, 0));
}

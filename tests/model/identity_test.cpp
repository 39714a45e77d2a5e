// Identities, self identities and nick candidates: defaults, derived texts,
// dictionary and archive forms, and the self identity's refusals.
#include "model/ztmodelsupport.h"
#include "model_fixture.h"
#include "runtime/kvc.h"
#include "support/log_capture.h"
#include "support/raised.h"

#include <QImage>

TEST_F(ModelTest, Masks)
{
    struct Row
    {
        const char *name, *nick, *user, *host, *mask, *nuh, *banMask, *userhost;
    } rows[] = {
        {"three labels", "n", "u", "a.b.org", "*!u@*.b.org", "n!u@a.b.org", "*!*@a.b.org", "u@a.b.org"},
        {"numeric address", "n", "u", "10.0.0.7", "*!u@10.0.0.*", "n!u@10.0.0.7", "*!*@10.0.0.7",
         "u@10.0.0.7"},
        {"digits lead the last label", "n", "u", "x.12ab", "*!u@x.*", "n!u@x.12ab", "*!*@x.12ab", "u@x.12ab"},
        {"zero is not numeric", "n", "u", "a.0", "*!u@*.0", "n!u@a.0", "*!*@a.0", "u@a.0"},
        {"one label", "n", "u", "localhost", "*!u@localhost", "n!u@localhost", "*!*@localhost",
         "u@localhost"},
        {"no user", "n", "", "a.b.org", "n!*@*", "n!*@*", "*!*@a.b.org", ""},
        {"no host", "n", "u", "", "n!*@*", "n!*@*", "n!*@*", ""},
    };
    auto id = make<AgentIdentity>();
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        id->setNickname(qs(r.nick));
        id->setUsername(qs(r.user));
        id->setHostname(qs(r.host));
        EXPECT_EQ(id->mask(), qs(r.mask));
        EXPECT_EQ(id->nuh(), qs(r.nuh));
        EXPECT_EQ(id->banMask(), qs(r.banMask));
        EXPECT_EQ(id->valueForKey(u"userhost"_s), QVariant(qs(r.userhost)));
    }
}

TEST_F(ModelTest, Privileges)
{
    struct Row
    {
        QVariantList held;
        const char *prefixes;
        int highest;
        const char *readable;
    } rows[] = {
        {{}, "", 0, "REGULAR_USER"},
        {QVariantList{5, 4}, "!&", 5, "CHANNEL_ADMIN"},
        {QVariantList{1, 3, 7}, "@+", 7, "SERVER_OP, CHANNEL_OP, VOICED_USER"},
        {QVariantList{2, 6}, "~%", 6, "CHANNEL_OWNER, HALP_OP"},
    };
    auto id = make<AgentIdentity>();
    for (const Row &r : rows) {
        SCOPED_TRACE(r.readable);
        id->setPrivileges(r.held);
        EXPECT_EQ(id->prefixablePrivileges(), qs(r.prefixes));
        EXPECT_EQ(id->highestPrivilege(), r.highest);
        EXPECT_EQ(id->readablePrivileges(), qs(r.readable));
    }
}

TEST_F(ModelTest, AwayMessageAndStatusImageFollowTheStatus)
{
    int made = 0;
    zt::model::setValueTransformer(QString::fromLatin1(zt::model::StatusImageTransformerName),
                                   [&](const QVariant &v) {
                                       ++made;
                                       return QVariant(u"image %1"_s.arg(v.toInt()));
                                   });
    auto id = make<AgentIdentity>();
    int awayChanges = 0, imageChanges = 0;
    auto awayToken = zt::observeKeyPathOptionsHandler(
        id.get(), u"awayMessage"_s, {}, [&](zt::Object *, const zt::KVOChange &) { ++awayChanges; });
    auto imageToken = zt::observeKeyPathOptionsHandler(
        id.get(), u"statusImage"_s, {}, [&](zt::Object *, const zt::KVOChange &) { ++imageChanges; });
    id->setAwayMessage(u"gone"_s);
    EXPECT_EQ(id->awayMessage(), u""_s);
    EXPECT_EQ(id->statusImage(), QVariant(u"image 7"_s));
    EXPECT_EQ(id->statusImage(), QVariant(u"image 7"_s));
    EXPECT_EQ(made, 1);
    EXPECT_EQ(imageChanges, 0); // filling the cache announces nothing
    id->setStatus(6);
    EXPECT_EQ(id->awayMessage(), u"gone"_s);
    EXPECT_EQ(id->statusImage(), QVariant(u"image 6"_s));
    EXPECT_EQ(awayChanges, 2); // the setter, then the status it depends on
    EXPECT_EQ(imageChanges, 1);
    EXPECT_FALSE(id->shouldPropagateValueChangesForKey(u"statusImage"_s)); // a local cache
    zt::model::setValueTransformer(QString::fromLatin1(zt::model::StatusImageTransformerName), {});
}

TEST_F(ModelTest, SelfIdentityRefusesANickname)
{
    zttest::LogCapture log;
    auto self = make<AgentSelfIdentity>();
    self->setValueForKey(QString(u"nick"_s), u"nickname"_s);
    EXPECT_TRUE(self->valueForKey(u"nickname"_s).isNull());
    EXPECT_EQ(log.lines(),
              QStringList({u"SelfIdentity can't set nickname"_s, u"SelfIdentity can't get nickname"_s}));
}

TEST_F(ModelTest, CandidatesEqualityAndDescription)
{
    auto a = make<AgentSelfIdentity>(), b = make<AgentSelfIdentity>();
    for (auto *self : {a.get(), b.get()}) {
        self->setUsername(u"u"_s);
        self->setRealname(u"Real"_s);
        self->setCandidateDictionaries(
            {QVariantMap{{u"nickname"_s, u"first"_s}}, QVariantMap{{u"nickname"_s, u"second"_s}}});
    }
    EXPECT_TRUE(a->isEqual(b.get()));
    EXPECT_EQ(a->printableDescription(), u"u (Real), nicknames: (\n    first,\n    second\n)"_s);
    b->candidates().at(1)->setNickserv(u"secret"_s);
    EXPECT_FALSE(a->isEqual(b.get()));
    b->removeCandidatesAtLocations(zt::IndexSet(1));
    EXPECT_FALSE(a->isEqual(b.get()));

    auto abstract = make<ZTAbstractSelfIdentity>();
    EXPECT_EQ(zttest::raised([&] { abstract->setCandidateDictionaries({QVariantMap()}); }).first,
              u"Abstract method"_s);
    EXPECT_EQ(abstract->newCandidate(), QVariant(QVariantMap()));
}

TEST_F(ModelTest, ArchiveForms)
{
    auto id = make<AgentIdentity>();
    id->setNickname(u"nick"_s);
    id->setUsername(u"user"_s);
    id->setHostname(u"host"_s); // not archived
    auto back = roundTrip<AgentIdentity>(id.get());
    ASSERT_TRUE(back);
    EXPECT_EQ(back->nickname(), u"nick"_s);
    EXPECT_EQ(back->username(), u"user"_s);
    EXPECT_EQ(back->hostname(), u""_s);

    auto self = make<AgentSelfIdentity>();
    self->setCandidateDictionaries({QVariantMap{{u"nickname"_s, u"n"_s}, {u"nickserv"_s, u"pw"_s}}});
    self->setAvatarData("picture");
    self->setIsDefault(true);
    auto candidate = self->candidates().first();
    auto selfBack = roundTrip<AgentSelfIdentity>(self.get());
    ASSERT_TRUE(selfBack);
    EXPECT_TRUE(selfBack->isDefault());
    EXPECT_EQ(selfBack->avatarData(), QByteArray("picture"));
    ASSERT_EQ(selfBack->candidates().size(), 1);
    EXPECT_TRUE(selfBack->candidates().first()->isEqual(candidate.get()));

    // An archive written before self identities stored their own keys.
    auto oldBack =
        roundTrip<AgentSelfIdentity>(selfBack.get(), {u"avatarData"_s, u"candidates"_s, u"isDefault"_s});
    ASSERT_TRUE(oldBack);
    EXPECT_TRUE(oldBack->candidates().isEmpty());
    EXPECT_FALSE(oldBack->isDefault());
    EXPECT_EQ(oldBack->avatarData(), ZTAbstractSelfIdentity::defaultAvatarData());
    // The generic picture: a keyed archive of 128×128 PNG data.
    const auto png = zt::KeyedUnarchiver::unarchiveObjectWithData(oldBack->avatarData());
    ASSERT_TRUE(png);
    EXPECT_EQ(QImage::fromData(png->toByteArray(), "PNG").size(), QSize(128, 128));
}

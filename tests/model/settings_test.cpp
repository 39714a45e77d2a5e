// Advanced settings, proxy, ban and transfer: defaults and dictionary forms,
// the settings' archive keys (also an archive without them), the user
// default "autoAutoJoin", the ban date through the dictionary, and which
// keys of a transfer propagate.

#include "dictionary_objects.h"
#include "model_test_support.h"
#include "runtime/keyedarchive.h"
#include "settings_classes.h"

#include <QCoreApplication>
#include <QSettings>

namespace {
class SettingsTest : public ModelTest
{
};
} // namespace

TEST_F(SettingsTest, DefaultsAndDictionaryForms)
{
    auto settings = agentObject<AgentAdvancedSettings>();
    expectDictionary(settings.get(), {{u"showCounts"_s, true},
                                      {u"excludeFromLog"_s, false},
                                      {u"muteSounds"_s, false},
                                      {u"blowfishEnabled"_s, false},
                                      {u"autoJoin"_s, false},
                                      {u"autoRejoin"_s, false},
                                      {u"blowfishKey"_s, u""_s}});
    settings->setBlowfishKey(QString());
    EXPECT_EQ(settings->dictionary().value(u"blowfishKey"_s), u""_s); // nil is sent as ""
    EXPECT_TRUE(settings->enableInterProcessKVO());

    auto proxy = agentObject<AgentProxy>();
    expectDictionary(proxy.get(), {{u"enabled"_s, false},
                                   {u"systemwide"_s, false},
                                   {u"proxyType"_s, quint64(0)},
                                   {u"proxyPort"_s, quint64(0)}});
    proxy->setProxyUsername(u"me"_s);
    EXPECT_EQ(proxy->dictionary().value(u"proxyUsername"_s), u"me"_s);

    auto transfer = agentObject<AgentTransfer>();
    expectDictionary(transfer.get(), {{u"attributes"_s, QVariantMap()}});
    for (const auto &[key, propagates] :
         {std::pair{"attributes", true}, {"description", false}, {"name", false}, {"representation", false}})
        EXPECT_EQ(transfer->shouldPropagateValueChangesForKey(QString::fromLatin1(key)), propagates) << key;
    for (ZTAbstractIPC *o :
         {(ZTAbstractIPC *)settings.get(), (ZTAbstractIPC *)proxy.get(), (ZTAbstractIPC *)transfer.get()})
        o->invalidate();
}

TEST_F(SettingsTest, AutoJoinFollowsTheUserDefault)
{
    QCoreApplication::setOrganizationName(u"ZintaroTests"_s);
    QCoreApplication::setApplicationName(u"model_test"_s);
    for (const auto &[stored, expected] :
         {std::pair{QVariant(), false}, {QVariant(true), true}, {QVariant(false), false}}) {
        SCOPED_TRACE(expected);
        QSettings().remove(u"autoAutoJoin"_s);
        if (stored.isValid())
            QSettings().setValue(u"autoAutoJoin"_s, stored);
        auto settings = agentObject<AgentAdvancedSettings>();
        EXPECT_EQ(settings->autoJoin(), expected);
        EXPECT_TRUE(settings->showCounts());
        settings->invalidate();
    }
    QSettings().remove(u"autoAutoJoin"_s);
}

TEST_F(SettingsTest, ArchiveUsesReadableKeysAndMissingFlagsReadNo)
{
    auto settings = agentObject<AgentAdvancedSettings>();
    settings->setBlowfishKey(u"fish"_s);
    settings->setMuteSounds(true);
    const QString uuid = settings->description();
    const QByteArray data = zt::KeyedArchiver::archivedDataWithRootObject(zt::objectValue(settings.get()));
    for (const char *key : {"Blowfish key", "Blowfish enabled", "Auto join", "Auto rejoin",
                            "Exclude from log", "Mute sounds", "Show counts"})
        EXPECT_TRUE(data.contains(key)) << key;
    settings->invalidate();
    auto decoded = zt::fromValue<zt::Ref<ZTAbstractAdvancedSettings>>(
        *zt::KeyedUnarchiver::unarchiveObjectWithData(data));
    ASSERT_TRUE(decoded);
    expectDictionary(decoded.get(), {{u"showCounts"_s, true},
                                     {u"excludeFromLog"_s, false},
                                     {u"muteSounds"_s, true},
                                     {u"blowfishEnabled"_s, false},
                                     {u"autoJoin"_s, false},
                                     {u"autoRejoin"_s, false},
                                     {u"blowfishKey"_s, u"fish"_s}});
    EXPECT_EQ(decoded->description(), uuid);
    decoded->invalidate();

    // An archive from before these keys: every flag reads NO, show counts too.
    const QByteArray old =
        archiveWithout(data, {u"Blowfish key"_s, u"Blowfish enabled"_s, u"Auto join"_s, u"Auto rejoin"_s,
                              u"Exclude from log"_s, u"Mute sounds"_s, u"Show counts"_s});
    auto fromOld = zt::fromValue<zt::Ref<ZTAbstractAdvancedSettings>>(
        *zt::KeyedUnarchiver::unarchiveObjectWithData(old));
    ASSERT_TRUE(fromOld);
    EXPECT_FALSE(fromOld->showCounts());
    EXPECT_TRUE(fromOld->blowfishKey().isNull());
    fromOld->invalidate();
}

TEST_F(SettingsTest, BanDateSurvivesTheDictionaryToTheClient)
{
    const double date = 1700000000.123456789; // finer than a millisecond
    auto ban = ZTAbstractBan::banWithMaskBannerDate<AgentBan>(u"*!*@host"_s, u"op"_s, date);
    const QVariantMap dictionary = ban->dictionary();
    EXPECT_EQ(zt::kindOf(dictionary.value(u"date"_s)), zt::ValueKind::Real);
    playRole(false);
    auto mirror = zt::apps::objectFromDictionary<ClientBan, ZTAbstractBan>(dictionary);
    ASSERT_TRUE(mirror);
    EXPECT_EQ(mirror->dateSeconds(), std::optional<double>(date));
    EXPECT_TRUE(zt::apps::describeDifferences(dictionary, mirror->dictionary()).isEmpty());
    mirror->invalidate();
    playRole(true);
    ban->invalidate();
}

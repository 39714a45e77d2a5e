// Advanced settings: the archive keys (also an archive without them), the
// nil Blowfish key in the dictionary, the user default "autoAutoJoin".

#include "model_fixture.h"

#include <QCoreApplication>
#include <QSettings>

TEST_F(ModelTest, AutoJoinFollowsTheUserDefault)
{
    QCoreApplication::setOrganizationName(u"ZintaroTests"_s);
    QCoreApplication::setApplicationName(u"model_test"_s);
    for (const auto &[stored, expected] :
         {std::pair{QVariant(), false}, {QVariant(true), true}, {QVariant(false), false}}) {
        SCOPED_TRACE(expected);
        QSettings().remove(u"autoAutoJoin"_s);
        if (stored.isValid())
            QSettings().setValue(u"autoAutoJoin"_s, stored);
        auto settings = make<AgentAdvancedSettings>();
        EXPECT_EQ(settings->autoJoin(), expected);
        EXPECT_TRUE(settings->showCounts());
    }
    QSettings().remove(u"autoAutoJoin"_s);
}

TEST_F(ModelTest, SettingsArchiveUsesReadableKeysAndMissingFlagsReadNo)
{
    const QStringList keys{u"Blowfish key"_s,     u"Blowfish enabled"_s, u"Auto join"_s,  u"Auto rejoin"_s,
                           u"Exclude from log"_s, u"Mute sounds"_s,      u"Show counts"_s};
    auto settings = make<AgentAdvancedSettings>();
    const QByteArray data = zt::KeyedArchiver::archivedDataWithRootObject(zt::objectValue(settings.get()));
    for (const QString &key : keys)
        EXPECT_TRUE(data.contains(key.toLatin1())) << qPrintable(key);

    settings->setBlowfishKey(u"fish"_s);
    settings->setMuteSounds(true);
    auto decoded = roundTrip<ZTAbstractAdvancedSettings>(settings.get());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->description(), settings->description());
    EXPECT_TRUE(decoded->muteSounds());
    EXPECT_TRUE(decoded->showCounts());
    EXPECT_EQ(decoded->blowfishKey(), u"fish"_s);

    // An archive from before these keys: every flag reads NO, show counts too.
    auto fromOld = roundTrip<ZTAbstractAdvancedSettings>(decoded.get(), keys);
    ASSERT_TRUE(fromOld);
    EXPECT_FALSE(fromOld->showCounts());
    EXPECT_TRUE(fromOld->blowfishKey().isNull());
    EXPECT_EQ(fromOld->dictionary().value(u"blowfishKey"_s), u""_s); // nil is sent as ""
}

#include "runtime/exception.h"
#include "text/ircstring.h"

#include <QRandomGenerator>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace {

using namespace Qt::StringLiterals;

struct Row
{
    const char *name;
    QString input, expected;
};

TEST(IrcString, StringFunctions)
{
    const struct
    {
        const char *function;
        std::function<QString(QStringView)> call;
        std::vector<Row> rows;
    } cases[] = {
        {"StringByRemovingPrivileges",
         irc::stringByRemovingPrivileges,
         {{"stacked marks", u"@+nick"_s, u"nick"_s},
          {"every mark", u"*@+&%!~ nick"_s, u"nick"_s},
          {"inner marks stay", u"@ni@ck "_s, u"ni@ck"_s},
          {"trailing marks", u"nick+~"_s, u"nick"_s},
          {"only marks", u"@@ +"_s, u""_s},
          {"non-marks kept", u"^nick_"_s, u"^nick_"_s},
          {"empty", u""_s, u""_s}}},
        {"RemoveUnderscores",
         [](QStringView s) {
             QString copy = s.toString();
             irc::removeUnderscores(copy);
             return copy;
         },
         {{"several", u"nick___"_s, u"nick"_s},
          {"inner stay", u"ni_ck_"_s, u"ni_ck"_s},
          {"only underscores keep one", u"____"_s, u"_"_s},
          {"single underscore", u"_"_s, u"_"_s},
          {"none", u"nick"_s, u"nick"_s},
          {"empty", u""_s, u""_s}}},
        {"AlternativeNick",
         [](QStringView s) { return irc::alternativeNick(s, u"login"); },
         {{"empty gives login", u""_s, u"login"_s},
          {"one character gives login", u"a"_s, u"login"_s},
          {"two underscores give login", u"__"_s, u"login"_s},
          {"letter and underscore give login", u"a_"_s, u"login"_s},
          {"short nick gains underscore", u"ab"_s, u"ab_"_s},
          {"underscores become a dash", u"nick__"_s, u"nick-"_s},
          {"dash gains underscore", u"nick-"_s, u"nick-_"_s},
          {"grave gains underscore", u"nick`"_s, u"nick`_"_s},
          {"eight gains ninth", u"abcdefgh"_s, u"abcdefgh_"_s},
          {"nine loses last", u"abcdefghi"_s, u"abcdefgh"_s},
          {"nine ending in underscore loses it", u"abcdefgh_"_s, u"abcdefgh"_s},
          {"long is cut by one", u"averylongnickname"_s, u"averylongnicknam"_s},
          {"counts code units", u"n\U0001F600ck_"_s, u"n\U0001F600ck-"_s}}},
        {"Mnemonic",
         irc::mnemonic,
         {{"first word lower-cased", u"Freenode Main"_s, u"freenode"_s},
          {"no space", u"LiberaChat"_s, u"liberachat"_s},
          {"leading space", u" Libera"_s, u""_s},
          {"non-ASCII letters", u"ÄBC DEF"_s, u"äbc"_s},
          {"empty", u""_s, u""_s}}},
        {"ChannelName",
         irc::channelName,
         {{"nick gains hash", u"chan"_s, u"#chan"_s},
          {"hash kept", u"#chan"_s, u"#chan"_s},
          {"plus channel kept", u"+chan"_s, u"+chan"_s},
          {"status channel gains hash", u"@#chan"_s, u"#@#chan"_s},
          {"empty stays empty", u""_s, u""_s}}},
        {"ChannelNameAsLink",
         irc::channelNameAsLink,
         {{"first hash kept", u"#a#b"_s, u"#a%23b"_s},
          {"double hash", u"##chan"_s, u"#%23chan"_s},
          {"added hash is first", u"a#b"_s, u"#a%23b"_s},
          {"other prefix", u"&a#"_s, u"&a%23"_s},
          {"no inner hash", u"#chan"_s, u"#chan"_s},
          {"empty", u""_s, u""_s}}},
        {"FormattedCommand",
         irc::formattedCommand,
         {{"command", u"/msg nick hi"_s, u"MSG nick hi"_s},
          {"not a command", u"join #a"_s, u"JOIN #a"_s},
          {"only first word changes case", u"/Me waves At you"_s, u"ME waves At you"_s},
          {"empty words kept", u"/msg  nick   hi "_s, u"MSG  nick   hi "_s},
          {"slash only", u"/"_s, u""_s},
          {"slash and space", u"/ x"_s, u" x"_s},
          {"leading space", u" /msg"_s, u" /msg"_s},
          {"no arguments", u"/quit"_s, u"QUIT"_s},
          {"full case mapping", u"/straße x"_s, u"STRASSE x"_s},
          {"empty", u""_s, u""_s}}},
        {"IsLocal",
         [](QStringView s) { return QString::number(irc::isLocal(s)); },
         {{"loopback address", u"127.0.0.1"_s, u"1"_s},
          {"localhost", u"localhost"_s, u"1"_s},
          {"localhost any case", u"LocalHost"_s, u"1"_s},
          {"other loopback address", u"127.0.0.2"_s, u"0"_s},
          {"padded address", u" 127.0.0.1"_s, u"0"_s},
          {"localhost with domain", u"localhost.localdomain"_s, u"0"_s},
          {"empty", u""_s, u"0"_s}}},
        // Restricted channel name, channel name, statused channel name.
        {"ChannelNamePredicates",
         [](QStringView s) {
             return QString::number(irc::isRestrictedChannelName(s)) +
                    QString::number(irc::isChannelName(s)) + QString::number(irc::isStatusedChannelName(s));
         },
         {{"hash", u"#chan"_s, u"110"_s},
          {"bang", u"!chan"_s, u"110"_s},
          {"ampersand", u"&chan"_s, u"110"_s},
          {"tilde", u"~chan"_s, u"110"_s},
          {"plus channel", u"+chan"_s, u"010"_s},
          {"nick", u"chan"_s, u"000"_s},
          {"empty", u""_s, u"000"_s},
          {"op status on hash", u"@#chan"_s, u"001"_s},
          {"halfop status on ampersand", u"%&x"_s, u"001"_s},
          {"voice status on bang", u"+!x"_s, u"011"_s},
          {"status on bare hash", u"@#"_s, u"001"_s},
          {"status on plus channel", u"@+chan"_s, u"000"_s},
          {"bare status mark", u"@"_s, u"000"_s},
          {"bare plus", u"+"_s, u"010"_s},
          {"double status", u"@@#chan"_s, u"000"_s},
          {"unknown status mark", u"*#chan"_s, u"000"_s}}},
        // Nick, user and host; maskToUser raises where the other two stay total.
        {"MaskSplitting",
         [](QStringView s) {
             QString user;
             try {
                 user = irc::maskToUser(s);
             } catch (const zt::Exception &e) {
                 user = e.name();
             }
             return irc::maskToNick(s) + u'|' + user + u'|' + irc::maskToHost(s);
         },
         {{"full mask", u"nick!~user@host.example.org"_s, u"nick|~user|host.example.org"_s},
          {"empty user", u"nick!@host"_s, u"nick||host"_s},
          {"at sign in host", u"n!u@h@x"_s, u"n|u|h@x"_s},
          {"bang in user", u"n!u!v@h"_s, u"n|u!v|h"_s},
          {"nick only", u"nick"_s, u"nick||"_s},
          {"nick and user", u"nick!user"_s, u"nick||"_s},
          {"channel without at", u"#chan!x"_s, u"#chan!x||"_s},
          {"empty", u""_s, u"||"_s},
          {"no bang", u"user@host"_s, u"user@host|NSRangeException|host"_s},
          {"bang after at", u"a@b!c"_s, u"a@b|NSRangeException|b!c"_s},
          {"channel name", u"#chan!x@y"_s, u"#chan!x@y|NSRangeException|y"_s}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.function);
        for (const Row &row : c.rows) {
            SCOPED_TRACE(row.name);
            EXPECT_EQ(c.call(row.input), row.expected) << "input: " << row.input.toStdString();
        }
    }
}

TEST(IrcString, AlternativeNickFallsBackToTheRunningUser)
{
    EXPECT_FALSE(irc::loginName().isEmpty());
    EXPECT_EQ(irc::alternativeNick(u"x"), irc::loginName());
}

TEST(IrcString, EscapingMatchesOrderedReplacementsOnRandomText)
{
    // The definition of both escapes is a chain of whole-string replacements;
    // QString::replace is an independent implementation of each step.
    const char16_t alphabet[] = {u' ',  u' ',  u' ',  u'&',  u'<', u'>',   u'a',   u'b',  u'"',
                                 u'\'', u'\r', u'\n', u'\\', u';', 0x0120, 0x013C, 0x2026};
    QRandomGenerator random(4242);
    for (int round = 0; round < 2000; ++round) {
        QString text;
        const int length = random.bounded(0, 48);
        for (int i = 0; i < length; ++i)
            text += QChar(alphabet[random.bounded(int(std::size(alphabet)))]);
        SCOPED_TRACE(testing::Message() << "round " << round);

        const QString html = QString(text)
                                 .replace(u"&"_s, u"&amp;"_s)
                                 .replace(u"  "_s, u" &nbsp;"_s)
                                 .replace(u"<"_s, u"&lt;"_s)
                                 .replace(u">"_s, u"&gt;"_s);
        ASSERT_EQ(irc::escapedString(text), html);
        ASSERT_EQ(irc::escapedString(QStringView(text)), html);
        if (html == text && !text.isEmpty()) {
            ASSERT_TRUE(irc::escapedString(text).isSharedWith(text));
        }

        const QString script = QString(text)
                                   .replace(u"\""_s, u"\\\""_s)
                                   .replace(u"'"_s, u"\\'"_s)
                                   .replace(u"\r"_s, QString())
                                   .replace(u"\n"_s, QString());
        ASSERT_EQ(irc::javascriptString(text), script);
    }
}

} // namespace

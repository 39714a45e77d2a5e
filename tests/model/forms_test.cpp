// The dictionary form of a fresh object of each model class: exactly the
// keys it sends, with their defaults.
#include "model_fixture.h"
#include "network_classes.h"
#include "settings_classes.h"

#include <functional>

TEST_F(ModelTest, FreshDictionaryForms)
{
    const QVariantMap emptyLines{{u"content"_s, QVariantList()}, {u"pastcontent"_s, QVariantList()}};
    const struct
    {
        const char *name;
        std::function<zt::Ref<ZTAbstractIPC>()> make;
        QVariantMap expected;
    } rows[] = {
        {"server",
         [&] { return make<AgentServer>(); },
         {{u"port"_s, quint64(6667)},
          {u"secure"_s, false},
          {u"trust"_s, false},
          {u"address"_s, u""_s},
          {u"password"_s, u""_s}}},
        {"advanced settings",
         [&] { return make<AgentAdvancedSettings>(); },
         {{u"showCounts"_s, true},
          {u"excludeFromLog"_s, false},
          {u"muteSounds"_s, false},
          {u"blowfishEnabled"_s, false},
          {u"autoJoin"_s, false},
          {u"autoRejoin"_s, false},
          {u"blowfishKey"_s, u""_s}}},
        {"proxy",
         [&] { return make<AgentProxy>(); },
         {{u"enabled"_s, false},
          {u"systemwide"_s, false},
          {u"proxyType"_s, quint64(0)},
          {u"proxyPort"_s, quint64(0)}}},
        {"transfer", [&] { return make<AgentTransfer>(); }, {{u"attributes"_s, QVariantMap()}}},
        {"identity",
         [&] { return make<AgentIdentity>(); },
         {{u"awayMessage"_s, u""_s},
          {u"hostname"_s, u""_s},
          {u"privileges"_s, QVariantList()},
          {u"realname"_s, u""_s},
          {u"status"_s, qint64(7)},
          {u"username"_s, u""_s}}},
        {"channel (counters and importance 0)",
         [&] { return make<AgentChannel>(); },
         {{u"name"_s, u""_s},
          {u"password"_s, u""_s},
          {u"isConsole"_s, false},
          {u"isChannel"_s, false},
          {u"isQuery"_s, false},
          {u"didValidateNames"_s, false},
          {u"focusAfterAdd"_s, false},
          {u"status"_s, qint64(0)},
          {u"unreadLines"_s, qint64(0)},
          {u"unreadHighlights"_s, qint64(0)},
          {u"importance"_s, qint64(0)},
          {u"index"_s, qint64(0)},
          {u"encoding"_s, quint64(0)},
          {u"attributes"_s, QVariantMap()},
          {u"userDictionaries"_s, QVariantList()},
          {u"linesDictionary"_s, emptyLines},
          {u"banlistDictionaries"_s, QVariantList()},
          {u"highlights"_s, QVariantList()}}},
        // A connection's state travels as property changes, not in its form.
        {"connection", [&] { return make<AgentConnection>(); }, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        expectDictionary(row.make().get(), row.expected);
    }
}

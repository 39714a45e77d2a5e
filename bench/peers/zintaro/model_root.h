#pragma once
// The root both processes of bench_model_join mirror: the channels under
// test. A connection's own dictionary form carries no channels (its state
// reaches a mirror as changes), so a client that registers after the agent
// holds a channel learns of it through this root's dictionary form.

#include "channel_classes.h"

class BenchModelRoot : public ZTAbstractIPC
{
    ZT_OBJECT(BenchModelRoot, ZTAbstractIPC)
public:
    ZT_WIRED_TO_MANY(ZTAbstractChannel, channels, Channels, channelDictionaries, ChannelDictionaries)

    //! The client's channels for the dictionaries (found by UUID or made);
    //! nothing in the agent, which makes its own.
    std::optional<QList<zt::Ref<ZTAbstractChannel>>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries);
    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
};

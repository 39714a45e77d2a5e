#include "model_root.h"

ZT_DEFINE_CLASS(BenchModelRoot)

std::optional<QList<zt::Ref<ZTAbstractChannel>>>
BenchModelRoot::replacementObjectsForChannelDictionaries(const QVariantList &dictionaries)
{
    if (ZTIPCProxy::isAgent())
        return std::nullopt;
    QList<zt::Ref<ZTAbstractChannel>> channels;
    for (const QVariant &dictionary : dictionaries)
        if (auto channel = chatapps::channelFromDictionary<ClientChannel>(dictionary, nullptr))
            channels.append(channel);
    return channels;
}

QVariantMap BenchModelRoot::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("channelDictionaries"), channelDictionaries());
    return d;
}

QString BenchModelRoot::replacementKeyForWiring(const QString &key) const
{
    return key == u"channels" ? QStringLiteral("channelDictionaries") : super::replacementKeyForWiring(key);
}

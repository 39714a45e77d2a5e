#include "settings_classes.h"

ZT_DEFINE_CLASS(AgentAdvancedSettings)
ZT_DEFINE_CLASS(ClientAdvancedSettings)
ZT_DEFINE_CLASS(AgentProxy)
ZT_DEFINE_CLASS(ClientProxy)
ZT_DEFINE_CLASS(AgentBan)
ZT_DEFINE_CLASS(ClientBan)
ZT_DEFINE_CLASS(AgentTransfer)
ZT_DEFINE_CLASS(ClientTransfer)

void AgentTransfer::setState(const QString &state)
{
    QVariantMap attributes = this->attributes();
    attributes.insert(QStringLiteral("state"), state);
    setAttributes(attributes);
}

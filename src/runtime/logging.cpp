#include "runtime/logging.h"

Q_LOGGING_CATEGORY(ztCore, "zt.core")
Q_LOGGING_CATEGORY(ztTransport, "zt.transport")
Q_LOGGING_CATEGORY(ztModel, "zt.model")
Q_LOGGING_CATEGORY(ztText, "zt.text")
Q_LOGGING_CATEGORY(ztRules, "zt.rules")
Q_LOGGING_CATEGORY(ztSecurity, "zt.security")
Q_LOGGING_CATEGORY(ztLog, "zt.log")
Q_LOGGING_CATEGORY(ztRuntime, "zt.runtime")

namespace zt {

void logLine(const QLoggingCategory &category, const QString &line)
{
    QMessageLogger(nullptr, 0, nullptr, category.categoryName()).info().noquote() << line;
}

} // namespace zt

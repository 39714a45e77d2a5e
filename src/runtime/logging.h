#pragma once
// One logging category per subsystem. The system's log lines are exact texts
// (see format.h for the "%@" style they are written in); they go out at info
// level through the category of the subsystem that writes them.

#include "runtime/format.h"
#include "zt_export.h"

#include <QLoggingCategory>

ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztCore)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztTransport)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztModel)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztText)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztRules)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztSecurity)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztLog)
ZT_EXPORT Q_DECLARE_LOGGING_CATEGORY(ztRuntime)

    namespace zt
{

    //! Writes one log line, already formatted, to the category.
    ZT_EXPORT void logLine(const QLoggingCategory &category, const QString &line);

    //! Formats with the system's "%@" conventions and writes the line.
    template<typename... Args>
    void log(const QLoggingCategory &category, QStringView format, const Args &...args)
    {
        if (category.isInfoEnabled())
            logLine(category, zt::format(format, args...));
    }

    //! Same, naming the category by its accessor (zt::log(ztCore, …)).
    template<typename... Args>
    void log(const QLoggingCategory &(*category)(), QStringView format, const Args &...args)
    {
        log(category(), format, args...);
    }

} // namespace zt

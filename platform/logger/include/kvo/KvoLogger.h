#pragma once

#include "kvo/logger_export.h"

#include <log4cplus/logger.h>

#include <string>

namespace kvo {

/// Where messages go: a thin face over an application's log4cplus logger.
/// Threads: any.
class KVO_LOGGER_EXPORT KvoLogger {
public:
    explicit KvoLogger(const log4cplus::Logger& logger);
    KvoLogger(const KvoLogger&) = delete;
    KvoLogger& operator=(const KvoLogger&) = delete;
    virtual ~KvoLogger();

    /// Writes one message. Never throws: what an appender throws is swallowed, since a full disk
    /// must not end an application.
    /// @param logger null: nothing is written.
    /// @param level  1 debug, 2 info, 3 warning, 4 error; below 1 counts as 1, above 4 as 4.
    static void WriteToLogger(KvoLogger* logger, int level, const std::string& message);

protected:
    /// For loggers that pass messages on elsewhere.
    KvoLogger() = default;
    virtual void Write(int level, const std::string& message);

private:
    log4cplus::Logger logger_;
};

}  // namespace kvo

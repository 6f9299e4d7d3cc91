#include "kvo/KvoLogger.h"

#include <log4cplus/loglevel.h>

namespace kvo {
namespace {

log4cplus::LogLevel Severity(int level) {
    if (level <= 1) {
        return log4cplus::DEBUG_LOG_LEVEL;
    }
    switch (level) {
        case 2:
            return log4cplus::INFO_LOG_LEVEL;
        case 3:
            return log4cplus::WARN_LOG_LEVEL;
        default:
            return log4cplus::ERROR_LOG_LEVEL;
    }
}

}  // namespace

KvoLogger::KvoLogger(const log4cplus::Logger& logger) : logger_(logger) {}

KvoLogger::~KvoLogger() = default;

[[gnu::hot]] void KvoLogger::WriteToLogger(KvoLogger* logger, int level,
                                           const std::string& message) {
    if (logger == nullptr) {
        return;
    }
    try {
        logger->Write(level, message);
    } catch (...) {  // an appender's failure must not become the caller's
    }
}

void KvoLogger::Write(int level, const std::string& message) {
    const log4cplus::LogLevel severity = Severity(level);
    if (logger_.isEnabledFor(severity)) {
        logger_.log(severity, message);
    }
}

}  // namespace kvo

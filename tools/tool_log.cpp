#include "tool_log.h"

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>

#include <memory>

namespace kvo::tools {

ToolLog::ToolLog(bool verbose)
    : verbose_(verbose), log_(log4cplus::Logger::getRoot()), kvo_logger_(log_) {
    log4cplus::SharedAppenderPtr appender(
        new log4cplus::ConsoleAppender(true /* standard error */, true /* flush each line */));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>("kvo: %p: %m%n"));
    log_.addAppender(appender);
    log_.setLogLevel(verbose_ ? log4cplus::DEBUG_LOG_LEVEL : log4cplus::OFF_LOG_LEVEL);
}

void ToolLog::ShowErrors() {
    if (!verbose_) {
        log_.setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    }
}

void ToolLog::HideErrors() {
    if (!verbose_) {
        log_.setLogLevel(log4cplus::OFF_LOG_LEVEL);
    }
}

}  // namespace kvo::tools

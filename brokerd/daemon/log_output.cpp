#include "log_output.h"

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>

#include <fstream>
#include <map>
#include <memory>

namespace kvo::brokerd {
namespace {

void LogToStandardError(log4cplus::Logger& root) {
    log4cplus::SharedAppenderPtr appender(
        new log4cplus::ConsoleAppender(true /* standard error */, true /* flush each line */));
    appender->setLayout(
        std::make_unique<log4cplus::PatternLayout>("%D{%Y-%m-%d %H:%M:%S.%q} %-5p %m%n"));
    root.addAppender(appender);
}

}  // namespace

LogOutput::LogOutput(const Configuration& configuration) : root_(log4cplus::Logger::getRoot()) {
    const std::string& file = configuration.log_configuration;
    if (file.empty()) {
        LogToStandardError(root_);
        SetLevel(configuration);
        return;
    }
    if (!std::ifstream(file)) {
        throw ConfigurationError("log-configuration: cannot read " + file);
    }
    log4cplus::PropertyConfigurator::doConfigure(file);
}

void LogOutput::SetLevel(const Configuration& configuration) {
    static const std::map<std::string, log4cplus::LogLevel> levels{
        {"debug", log4cplus::DEBUG_LOG_LEVEL},
        {"info", log4cplus::INFO_LOG_LEVEL},
        {"warning", log4cplus::WARN_LOG_LEVEL},
        {"error", log4cplus::ERROR_LOG_LEVEL}};
    if (configuration.log_configuration.empty()) {
        root_.setLogLevel(levels.at(configuration.log_level));
    }
}

}  // namespace kvo::brokerd

#include "kvo/KvoLogger.h"

#include <gtest/gtest.h>
#include <log4cplus/initializer.h>
#include <log4cplus/spi/loggingevent.h>

#include <utility>
#include <vector>

namespace {

class Recorder : public log4cplus::Appender {
public:
    ~Recorder() override { destructorImpl(); }
    void close() override {}
    std::vector<std::pair<log4cplus::LogLevel, std::string>> lines;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        lines.emplace_back(event.getLogLevel(), event.getMessage());
        if (event.getMessage() == "full disk") {
            throw std::runtime_error("full disk");
        }
    }
};

TEST(KvoLogger, LevelsBecomeSeveritiesAndAnAppenderThatThrowsHarmsNobody) {
    const log4cplus::Initializer initializer;
    log4cplus::Logger target = log4cplus::Logger::getInstance("logger_test");
    target.setLogLevel(log4cplus::ALL_LOG_LEVEL);
    auto* const recorder = new Recorder;
    target.addAppender(log4cplus::SharedAppenderPtr(recorder));
    kvo::KvoLogger logger(target);
    for (const int level : {1, 2, 3, 4}) {
        kvo::KvoLogger::WriteToLogger(&logger, level, "text");
    }
    EXPECT_NO_THROW(kvo::KvoLogger::WriteToLogger(&logger, 4, "full disk"));
    EXPECT_NO_THROW(kvo::KvoLogger::WriteToLogger(nullptr, 4, "nowhere"));
    const std::vector<std::pair<log4cplus::LogLevel, std::string>> expected = {
        {log4cplus::DEBUG_LOG_LEVEL, "text"},
        {log4cplus::INFO_LOG_LEVEL, "text"},
        {log4cplus::WARN_LOG_LEVEL, "text"},
        {log4cplus::ERROR_LOG_LEVEL, "text"},
        {log4cplus::ERROR_LOG_LEVEL, "full disk"}};
    EXPECT_EQ(recorder->lines, expected);
}

}  // namespace

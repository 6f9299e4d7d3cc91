#include "tool_log.h"

#include <log4cplus/appender.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

#include <memory>
#include <mutex>

namespace kvo::tools {
namespace {

// Keeps the newest error of the library's accessors.
class FileFaults final : public log4cplus::Appender {
public:
    ~FileFaults() override { destructorImpl(); }
    void close() override { closed = true; }
    std::string newest() const {
        const std::lock_guard lock(mutex_);
        return newest_;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        static constexpr std::string_view kOrigin = "KvoMemoryAccessor: ";
        const std::string& text = event.getMessage();
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL &&
            text.compare(0, kOrigin.size(), kOrigin) == 0) {
            const std::lock_guard lock(mutex_);
            newest_ = text.substr(kOrigin.size());
        }
    }

private:
    mutable std::mutex mutex_;
    std::string newest_;  // under the mutex
};

}  // namespace

ToolLog::ToolLog(bool verbose)
    : verbose_(verbose),
      log_(log4cplus::Logger::getRoot()),
      output_(
          new log4cplus::ConsoleAppender(true /* standard error */, true /* flush each line */)),
      faults_(new FileFaults),
      kvo_logger_(log_) {
    output_->setLayout(std::make_unique<log4cplus::PatternLayout>("kvo: %p: %m%n"));
    log_.addAppender(output_);
    log_.addAppender(faults_);
    log_.setLogLevel(verbose_ ? log4cplus::DEBUG_LOG_LEVEL : log4cplus::ERROR_LOG_LEVEL);
    HideErrors();
}

void ToolLog::ShowErrors() {
    if (!verbose_) {
        output_->setThreshold(log4cplus::ERROR_LOG_LEVEL);
    }
}

void ToolLog::HideErrors() {
    if (!verbose_) {
        output_->setThreshold(log4cplus::OFF_LOG_LEVEL);
    }
}

std::string ToolLog::WhyFailed() const {
    const std::string fault = static_cast<const FileFaults*>(faults_.get())->newest();
    return fault.empty() ? " failed; --verbose shows why" : " failed: " + fault;
}

}  // namespace kvo::tools

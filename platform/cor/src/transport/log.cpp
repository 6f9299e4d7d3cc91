#include "transport/log.h"

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <cstddef>
#include <mutex>
#include <set>
#include <utility>

namespace gorm::cor {
namespace {

constexpr std::chrono::seconds kInterval{1};
// A peer may come under ever new names; beyond this many in one second they go unlogged.
constexpr std::size_t kMaxPeers = 256;
constexpr std::size_t kMaxWarnings = 1000;  // that are remembered; further ones go unlogged

void Write(log4cplus::LogLevel level, const std::string& text) noexcept {
    try {
        // Never destroyed: our threads may log while the process ends.
        static auto* const logger =
            new log4cplus::Logger(log4cplus::Logger::getInstance("gorm.cor"));
        if (logger->isEnabledFor(level)) {
            logger->log(level, text);
        }
    } catch (...) {  // a failing appender must not end a thread of the middleware
    }
}

}  // namespace

void LogInfo(const std::string& text) noexcept {
    Write(log4cplus::INFO_LOG_LEVEL, text);
}
void LogWarning(const std::string& text) noexcept {
    Write(log4cplus::WARN_LOG_LEVEL, text);
}
void LogError(const std::string& text) noexcept {
    Write(log4cplus::ERROR_LOG_LEVEL, text);
}

void WarnOnce(const std::string& text) noexcept {
    try {
        // Never destroyed, as the logger.
        static auto& mutex = *new std::mutex;
        static auto& warnings = *new std::set<std::string>;
        {
            const std::lock_guard lock(mutex);
            if (warnings.size() >= kMaxWarnings || !warnings.insert(text).second) {
                return;
            }
        }
        LogWarning(text);
    } catch (...) {  // out of memory
    }
}

FaultLog::FaultLog(std::string what) : what_(std::move(what)) {}

void FaultLog::LogDropped(const std::string& peer, const char* reason) noexcept {
    ++count_;
    try {
        if (Admit(peer, Clock::now())) {
            LogWarning(what_ + " dropped: " + reason + " (" + std::to_string(count_) + " so far)");
        }
    } catch (...) {  // out of memory: the count stands
    }
}

void FaultLog::Log(const std::string& peer, const std::string& text) noexcept {
    try {
        if (Admit(peer, Clock::now())) {
            LogWarning(text);
        }
    } catch (...) {  // out of memory
    }
}

bool FaultLog::Admit(const std::string& peer, Clock::time_point now) {
    thread_.here();
    if (last_logged_.size() >= kMaxPeers) {
        std::erase_if(last_logged_,
                      [now](const auto& entry) { return now - entry.second >= kInterval; });
    }
    const auto found = last_logged_.find(peer);
    if (found != last_logged_.end() ? now - found->second < kInterval
                                    : last_logged_.size() >= kMaxPeers) {
        return false;
    }
    last_logged_[peer] = now;
    return true;
}

}  // namespace gorm::cor

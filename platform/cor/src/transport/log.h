#pragma once

#include "kvo/os/thread_bound.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_map>

// The middleware's own messages, on the log4cplus logger "gorm.cor". Never throw. Any thread, not
// under a lock: an appender may block.
namespace gorm::cor {

void LogInfo(const std::string& text) noexcept;
void LogWarning(const std::string& text) noexcept;
void LogError(const std::string& text) noexcept;
/// Warns, of the same only once in the life of the process; for what is tried again and again.
void WarnOnce(const std::string& text) noexcept;

/// Counts faults and logs them at most once a second for each peer. One thread.
class FaultLog {
public:
    explicit FaultLog(std::string what);
    void LogDropped(const std::string& peer, const char* reason) noexcept;
    /// Logs a text of its own.
    void Log(const std::string& peer, const std::string& text) noexcept;

private:
    using Clock = std::chrono::steady_clock;
    [[nodiscard]] bool Admit(const std::string& peer, Clock::time_point now);

    const kvo::os::ThreadBound thread_;
    const std::string what_;
    std::uint64_t count_ = 0;
    std::unordered_map<std::string, Clock::time_point> last_logged_;
};

}  // namespace gorm::cor

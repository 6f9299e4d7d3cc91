#pragma once

#include "kvo/KvoLogger.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace kvo::test {

/// Longest wait for something that happens at once on an idle machine.
inline constexpr std::chrono::seconds kDeadline{20};

struct LogLine {
    int level = 0;  // 1 debug to 4 error
    std::string text;
    bool operator==(const LogLine&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

/// A logger that keeps what is written to it. Threads: any.
class CapturedLog final : public KvoLogger {
public:
    CapturedLog() = default;

    KvoLogger* kvo_logger() { return this; }

    std::vector<LogLine> lines() const;
    /// How many lines hold the text.
    std::size_t Count(const std::string& part) const;
    void Clear();

    /// Waits until the exact line has been written `times` times. @return whether it was.
    bool WaitFor(const LogLine& line, std::size_t times = 1,
                 std::chrono::milliseconds deadline = kDeadline) const;

private:
    void Write(int level, const std::string& message) override;

    mutable std::mutex mutex_;
    mutable std::condition_variable written_;
    std::vector<LogLine> lines_;
};

}  // namespace kvo::test

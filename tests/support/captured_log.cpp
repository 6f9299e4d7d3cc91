#include "captured_log.h"

#include <algorithm>

namespace kvo::test {

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << "{" << line.level << ", \"" << line.text << "\"}";
}

std::vector<LogLine> CapturedLog::lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t CapturedLog::Count(const std::string& part) const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        lines_.begin(), lines_.end(),
        [&](const LogLine& line) { return line.text.find(part) != std::string::npos; }));
}

void CapturedLog::Clear() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
}

bool CapturedLog::WaitFor(const LogLine& line, std::size_t times,
                          std::chrono::milliseconds deadline) const {
    std::unique_lock lock(mutex_);
    return written_.wait_for(lock, deadline, [&] {
        return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line)) >= times;
    });
}

void CapturedLog::Write(int level, const std::string& message) {
    const std::lock_guard lock(mutex_);
    lines_.push_back({level, message});
    written_.notify_all();
}

}  // namespace kvo::test

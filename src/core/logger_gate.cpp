#include "core/logger_gate.h"

#include <cassert>
#include <utility>

namespace kvo {
namespace {

// Gate whose logger the thread is in; null: none.
thread_local const LoggerGate* inside = nullptr;

}  // namespace

void LoggerGate::Open(KvoLogger* logger) {
    logger_ = logger;
}

void LoggerGate::Close() {
    logger_ = nullptr;
    const int own = inside == this ? 1 : 0;
    for (int writers = writers_; writers != own; writers = writers_) {
        writers_.wait(writers);
    }
}

[[gnu::hot]] void LoggerGate::Write(int level, const std::string& message) {
    ++writers_;
    if (KvoLogger* const logger = logger_; logger != nullptr) {
        const LoggerGate* const outer = std::exchange(inside, this);
        WriteToLogger(logger, level, message);  // does not throw
        inside = outer;
    }
    [[maybe_unused]] const int before = writers_--;
    assert(before > 0);
    // Closed after this load: Close() loads the count as it is now and does not wait.
    if (logger_ == nullptr) {
        writers_.notify_all();
    }
}

}  // namespace kvo

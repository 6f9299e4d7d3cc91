#include "core/logger_gate.h"

#include <utility>

namespace kvo {
namespace {

// The gate whose logger this thread is in.
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
    --writers_;
    // Open: nobody waits. Closed after this look: Close() sees that we have left.
    if (logger_ == nullptr) {
        writers_.notify_all();
    }
}

}  // namespace kvo

#include "logger_gate.h"

#include <utility>

namespace kvo {
namespace {

// The gate whose logger this thread is in.
thread_local const LoggerGate* inside = nullptr;

}  // namespace

void LoggerGate::Open(KvoLogger* logger) {
    const std::lock_guard lock(mutex_);
    logger_ = logger;
}

void LoggerGate::Close() {
    std::unique_lock lock(mutex_);
    logger_ = nullptr;
    const int own = inside == this ? 1 : 0;
    writer_left_.wait(lock, [&] { return writers_ == own; });
}

void LoggerGate::Write(int level, const std::string& message) {
    KvoLogger* logger = nullptr;
    {
        const std::lock_guard lock(mutex_);
        if (logger_ == nullptr) {
            return;
        }
        logger = logger_;
        ++writers_;
    }
    const LoggerGate* const outer = std::exchange(inside, this);
    WriteToLogger(logger, level, message);  // does not throw
    inside = outer;
    {
        const std::lock_guard lock(mutex_);
        --writers_;
    }
    writer_left_.notify_all();
}

}  // namespace kvo

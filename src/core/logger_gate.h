#pragma once

#include "kvo/KvoLogger.h"

#include <atomic>
#include <string>

namespace kvo {

/// The way to the application's logger, which may be gone before the last of an object's threads
/// is: closed in the object's destructor, it writes nothing from then on.
/// Threads: any.
class LoggerGate final : public KvoLogger {
public:
    /// @param logger not owned; null: nothing is written.
    void Open(KvoLogger* logger);
    /// Returns when no thread is in the logger any more, but for the caller itself (an appender
    /// may destroy the object that logs).
    void Close();

protected:
    void Write(int level, const std::string& message) override;

private:
    // All accesses are sequentially consistent: a writer announces itself before it looks for the
    // logger, and Close() takes the logger away before it looks for writers, so that one of them
    // sees the other.
    std::atomic<KvoLogger*> logger_{nullptr};  // null: closed
    std::atomic<int> writers_{0};              // that may be in the logger
};

}  // namespace kvo

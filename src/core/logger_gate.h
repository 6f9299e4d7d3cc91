#pragma once

#include "kvo/KvoLogger.h"

#include <atomic>
#include <string>

namespace kvo {

/// Access to the application's logger, which may be destroyed before the object's threads end: the
/// object's destructor closes the gate, which writes nothing from then on.
/// Threads: any.
class LoggerGate final : public KvoLogger {
public:
    /// @param logger not owned; null: nothing is written.
    void Open(KvoLogger* logger);
    /// Returns when no other thread is in the logger. The caller may be, since an appender may
    /// destroy the object that logs.
    void Close();

protected:
    void Write(int level, const std::string& message) override;

private:
    // All accesses are sequentially consistent: a writer counts itself before it loads the logger,
    // and Close() clears the logger before it loads the count, so that one sees the other.
    std::atomic<KvoLogger*> logger_{nullptr};  // null: closed
    std::atomic<int> writers_{0};              // threads that may be in the logger
};

}  // namespace kvo

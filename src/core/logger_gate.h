#pragma once

#include "kvo/KvoLogger.h"

#include <condition_variable>
#include <mutex>
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
    std::mutex mutex_;
    std::condition_variable writer_left_;
    KvoLogger* logger_ = nullptr;  // null: closed
    int writers_ = 0;
};

}  // namespace kvo

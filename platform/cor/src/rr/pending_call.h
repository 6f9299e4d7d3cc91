#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace gorm::cor::rr {

/// How a request ended.
struct Outcome {
    enum class Kind { kResult, kRemoteError, kConnectionLost };
    Kind kind;
    std::string text;  // packed result, the peer's error, or why there is no connection
};

/// A request between its caller, which waits or has left a function to be called, and the I/O
/// thread, which completes it.
class PendingCall {
public:
    PendingCall(std::uint32_t id, std::string message,
                std::function<void(const Outcome&)> completed = nullptr);

    /// The first outcome counts. I/O thread.
    void Complete(Outcome outcome);
    /// Caller. @return none: the deadline has passed.
    [[nodiscard]] std::optional<Outcome> Await(std::chrono::steady_clock::time_point deadline);

    const std::uint32_t id;
    const std::string message;

private:
    const std::function<void(const Outcome&)> call_;  // I/O thread; may be empty
    std::mutex mutex_;
    std::condition_variable completed_;
    std::optional<Outcome> outcome_;  // under the mutex
};

}  // namespace gorm::cor::rr

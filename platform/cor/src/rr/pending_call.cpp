#include "rr/pending_call.h"

#include <utility>

namespace gorm::cor::rr {

PendingCall::PendingCall(std::uint32_t call_id, std::string bytes,
                         std::function<void(const Outcome&)> completed)
    : id(call_id), message(std::move(bytes)), call_(std::move(completed)) {}

void PendingCall::Complete(Outcome outcome) {
    if (call_) {
        call_(outcome);
        return;
    }
    const std::lock_guard lock(mutex_);
    if (!outcome_) {
        outcome_ = std::move(outcome);
        completed_.notify_one();
    }
}

std::optional<Outcome> PendingCall::Await(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    completed_.wait_until(lock, deadline, [this] { return outcome_.has_value(); });
    return outcome_;
}

}  // namespace gorm::cor::rr

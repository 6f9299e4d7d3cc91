#pragma once

#include "gorm/cor/rr/service.h"
#include "kvo/broker/identifiers.h"
#include "kvo/os/thread_bound.h"
#include "requests/event_log.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace kvo::brokerd {

/// What was refused: each refusal goes to the log and to the events, and its reason is kept for the
/// caller's process; the newest thousand are.
/// Threads: one.
class Refusals {
public:
    using Caller = gorm::cor::rr::Caller;
    using Log = std::function<void(int level, const std::string& text)>;
    Refusals(EventLog& events, Log log) : events_(events), log_(std::move(log)) {}

    /// @param code for the log: " (-14)"; empty: the operation answers with an error.
    void Add(const Caller& caller, const StreamName& stream, const std::string& code,
             const std::string& reason);
    /// Of a question, which was answered with no: the reason is kept alone.
    void Keep(const Caller& caller, const StreamName& stream, std::string reason);
    /// The caller was given the stream.
    void Forget(const Caller& caller, const StreamName& stream);
    /// Empty: the caller has not been refused the stream since it was last given it.
    std::string Of(const Caller& caller, const StreamName& stream) const;

    std::uint64_t count() const { return count_; }

private:
    using Key = std::pair<std::string, StreamName>;  // process or connection

    os::ThreadBound thread_;
    EventLog& events_;
    const Log log_;
    std::map<Key, std::string> reasons_;
    std::deque<Key> order_;  // oldest first
    std::uint64_t count_ = 0;
};

}  // namespace kvo::brokerd

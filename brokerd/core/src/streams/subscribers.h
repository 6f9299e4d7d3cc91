#pragma once

#include "streams/admission.h"
#include "streams/quotas.h"
#include "streams/stream_table.h"
#include "streams/verdict.h"

#include <cstddef>
#include <map>
#include <set>

namespace kvo::brokerd {

/// The subscribers of all streams. A subscriber is the same one in each of its streams.
/// Threads: one.
class Subscribers {
public:
    Subscribers(StreamTable& table, const Admission& admission, const Quotas& quotas)
        : table_(table), admission_(admission), quotas_(quotas) {}

    /// Whether such a subscriber could be added.
    Verdict Check(const Registrant& registrant, const SubscriberId& subscriber,
                  const StreamName& stream) const;
    Verdict Add(const Registrant& registrant, const SubscriberId& subscriber,
                const StreamName& stream);
    /// -1: there is no such subscriber, or it is of another process.
    Verdict Remove(const ClientIdentity& caller, const StreamName& stream,
                   const SubscriberId& subscriber);
    /// All of them.
    void Clear();

    /// @return whether the caller has the subscriber, or had it a moment ago.
    [[nodiscard]] bool OnHeartbeat(const ClientIdentity& caller, const SubscriberId& subscriber);

    std::size_t CountOf(const StreamName& stream) const;

    /// Removes those that have died or ended their heartbeats.
    void Supervise(const StreamName& name, Stream& stream);
    void ForgetDeparted();

private:
    void Forget(const SubscriberId& subscriber, const StreamName& stream);

    StreamTable& table_;
    const Admission& admission_;
    const Quotas& quotas_;
    std::map<SubscriberId, std::set<StreamName>> subscriptions_;
    std::map<SubscriberId, TimePoint> departed_;  // removed a moment ago, until when to remember
};

}  // namespace kvo::brokerd

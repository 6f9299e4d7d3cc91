#pragma once

#include "streams/stream_table.h"
#include "streams/verdict.h"

namespace kvo::brokerd {

/// What every registration is checked for first: well-formed names, the limit of streams, a broker
/// that is being drained.
/// Threads: one.
class Admission {
public:
    explicit Admission(const StreamTable& table) : table_(table) {}

    Verdict CheckPublisher(const StreamName& stream) const;
    Verdict CheckSubscriber(const StreamName& stream, const SubscriberId& subscriber) const;

    /// From now on nothing is admitted.
    void Close() { closed_ = true; }
    bool closed() const { return closed_; }

private:
    Verdict CheckStream(const StreamName& stream) const;

    const StreamTable& table_;
    bool closed_ = false;
};

}  // namespace kvo::brokerd

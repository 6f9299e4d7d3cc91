#pragma once

#include "kvo/broker/identifiers.h"
#include "streams/liveness.h"
#include "streams/verdict.h"

#include <cstdint>
#include <string>

namespace kvo::brokerd {

class StreamTable;

/// Streams, and the shared memory of those of them that are published.
struct Usage {
    std::uint64_t streams = 0;
    std::uint64_t bytes = 0;
};

/// What one process or one user may have.
struct Quota {
    std::uint64_t streams = 0;  // 0: no limit
    std::uint64_t bytes = 0;    // 0: no limit

    bool limits() const { return streams != 0 || bytes != 0; }
    /// Empty: there is room. Else a sentence with what is requested, what is in use and the limit.
    /// @param owner for people: "this process".
    [[nodiscard]] std::string Check(const std::string& owner, const Usage& used,
                                    const Usage& requested) const;
};

/// Compares what a registration would add with what its process and its user have already.
/// Threads: one.
class Quotas {
public:
    explicit Quotas(const StreamTable& table) : table_(table) {}

    /// @param bytes of the stream's memory; 0: for a subscriber.
    Verdict Check(const Registrant& registrant, const StreamName& stream,
                  std::uint64_t bytes) const;

private:
    template <class Counts>
    Usage UsageOf(Counts counts, const StreamName& except) const;

    const StreamTable& table_;
};

}  // namespace kvo::brokerd

#pragma once

#include <cstdint>
#include <string>

namespace kvo::brokerd {

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
    /// Empty: there is room. Else a sentence with what is asked for, what is used and the limit.
    /// @param whose for people: "this process".
    std::string WhyNot(const std::string& whose, const Usage& used, const Usage& asked) const;
};

}  // namespace kvo::brokerd

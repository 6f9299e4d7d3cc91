#pragma once

#include "kvo/memory/process_lock.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kvo {

/// Reads who lives out of a directory's lock file. Threads: any.
class ProcessObserver {
public:
    explicit ProcessObserver(const std::string& directory);

    /// @param nonce as it is known; @param nonce_bits how many of its lowest bits that are.
    ObservedProcess Probe(std::uint16_t number, std::uint64_t nonce, unsigned nonce_bits) const;

private:
    int file_;  // -1: there is none, so no process lives
};

}  // namespace kvo

#pragma once

#include "protocol.h"

#include <cstdint>

namespace kvo::model {

struct Outcome {
    const char* fault = nullptr;  // null: none in any state
    std::uint64_t states = 0;     // different ones
    bool complete = true;         // false: the limit was reached before the end
};

/// Visits every state that can be reached, depth first, until one is faulty.
Outcome Explore(const Configuration& configuration, std::uint64_t most_states);

}  // namespace kvo::model

#pragma once

#include "kvo/broker/broker_result.h"

#include <cstdint>
#include <string>

namespace kvo::brokerd {

/// The answer to a registration.
struct [[nodiscard]] Verdict {
    std::int32_t code = kRegistered;  // BrokerResult, or -1 where an operation says so
    std::string reason;               // of a refusal: a sentence with the values

    bool refused() const { return code != kRegistered; }
};

}  // namespace kvo::brokerd

#pragma once

#include <cstdint>

namespace kvo {

/// What a broker answers to AddPublisher and AddSubscriber. Other values may come; every value
/// but kRegistered is a refusal and is handed on unchanged.
enum BrokerResult : std::int32_t {
    kRegistered = 1,
    kNotEnoughMemory = -2,
    kStreamInUse = -3,
    kShmFileExists = -4,
    kIllFormedName = -10,
    kIllFormedGeometry = -11,
    kLimitReached = -12,
    kUnknownRemoteBroker = -13,
    kNoRight = -14,
    kNoRemoteStream = -15,
};

}  // namespace kvo

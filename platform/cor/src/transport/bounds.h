#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// Bounds on what a peer can make this process hold, and the times of the links.
namespace gorm::cor {

inline constexpr std::size_t kMaxRequestBytes = 64 * 1024;
inline constexpr std::size_t kMaxReplyBytes = 16 * 1024 * 1024;
inline constexpr std::size_t kMaxSampleBytes = 64 * 1024;
inline constexpr std::size_t kMaxPathBytes = 1024;
inline constexpr std::size_t kMaxRequestElements = 1024;  // of one array or map
inline constexpr std::size_t kMaxReplyElements = 65'536;  // room for the longest list of streams
inline constexpr std::size_t kMaxDepth = 16;

// Messages a socket holds per peer and direction. Notifications are small, and a subscriber that
// is held up for some seconds should not lose one that tells of a registration.
inline constexpr int kRequestQueue = 1000;
inline constexpr int kSampleQueue = 4096;
// One-way calls that wait for the I/O thread; a caller faster than it loses the ones above.
inline constexpr std::uint32_t kMaxQueuedOneWay = 4096;

// A killed peer shows by its closed connection; these are for one that is frozen or cut off.
inline constexpr std::chrono::milliseconds kHeartbeatInterval{1000};
inline constexpr std::chrono::milliseconds kHeartbeatTimeout{3000};
inline constexpr std::chrono::milliseconds kHeartbeatTtl{5000};
inline constexpr int kKeepaliveIdleS = 10;
inline constexpr int kKeepaliveIntervalS = 5;
inline constexpr int kKeepaliveProbes = 3;
inline constexpr std::chrono::milliseconds kHandshakeInterval{2000};
inline constexpr std::chrono::milliseconds kReconnectFirst{50};
inline constexpr std::chrono::milliseconds kReconnectMost{500};

// Messages handled in one go, so that one busy socket cannot keep the others of its thread waiting.
inline constexpr int kBatch = 64;
inline constexpr int kMaxSockets = 16'384;
inline constexpr int kBacklog = 1024;  // clients that reconnect at the same moment

}  // namespace gorm::cor

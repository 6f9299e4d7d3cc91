#pragma once

#include "peer.h"

#include <memory>
#include <vector>

namespace kvo::bench {

/// How the readers of a system wait, and with it what is measured of it.
enum class Readers {
    kBlocked,      // woken for samples; everything
    kPolling,      // looking all the time; the rate only, published in batches
    kBlockedBulk,  // woken as well; the rate of large samples only
};

/// A row of the comparison.
struct System {
    const char* name;
    const char* mode;
    Readers readers;
    std::unique_ptr<Peer> (*make)(const Load& load);

    bool polled() const { return readers == Readers::kPolling; }
};

/// All systems that this program was built with.
std::vector<System> Systems();

std::unique_ptr<Peer> MakeRawRing(const Load& load);
std::unique_ptr<Peer> MakeKvo(const Load& load);
std::unique_ptr<Peer> MakeKvoWire(const Load& load);
std::unique_ptr<Peer> MakeZeroMqIpc(const Load& load);
std::unique_ptr<Peer> MakeZeroMqTcp(const Load& load);
std::unique_ptr<Peer> MakeIceoryx(const Load& load);
/// The publisher keeps as many samples as there are buffers (at most 16), for subscribers to come.
std::unique_ptr<Peer> MakeIceoryxWithHistory(const Load& load);
std::unique_ptr<Peer> MakeCycloneDds(const Load& load);
std::unique_ptr<Peer> MakeFastDds(const Load& load);
std::unique_ptr<Peer> MakeNng(const Load& load);

}  // namespace kvo::bench

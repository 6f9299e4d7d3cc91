#pragma once

#include "peer.h"

#include <memory>
#include <vector>

namespace kvo::bench {

/// A row of the comparison.
struct System {
    const char* name;
    const char* mode;
    bool polled;  // measured for its rate only, published in batches
    std::unique_ptr<Peer> (*make)(const Load& load);
};

/// All systems that this program was built with.
std::vector<System> Systems();

std::unique_ptr<Peer> MakeRawRing(const Load& load);
std::unique_ptr<Peer> MakeKvo(const Load& load);
std::unique_ptr<Peer> MakeKvoWire(const Load& load);
std::unique_ptr<Peer> MakeZeroMqIpc(const Load& load);
std::unique_ptr<Peer> MakeZeroMqTcp(const Load& load);
std::unique_ptr<Peer> MakeIceoryx(const Load& load);
std::unique_ptr<Peer> MakeCycloneDds(const Load& load);
std::unique_ptr<Peer> MakeFastDds(const Load& load);
std::unique_ptr<Peer> MakeNng(const Load& load);

}  // namespace kvo::bench

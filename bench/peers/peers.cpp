#include "peers.h"

namespace kvo::bench {

std::vector<System> Systems() {
    return {
        {"kvo", "local topics", Readers::kBlocked, MakeKvo},
        {"kvo", "polled", Readers::kPolling, MakeKvo},
        {"kvo", "wire", Readers::kBlocked, MakeKvoWire},
        {"raw ring", "futex", Readers::kBlocked, MakeRawRing},
        {"raw ring", "polled", Readers::kPolling, MakeRawRing},
#ifdef KVO_PEER_ICEORYX
        {"iceoryx", "listener", Readers::kBlocked, MakeIceoryx},
        {"iceoryx", "listener, history", Readers::kBlockedBulk, MakeIceoryxWithHistory},
        {"iceoryx", "polled", Readers::kPolling, MakeIceoryx},
#endif
#ifdef KVO_PEER_CYCLONE_DDS
        {"Cyclone DDS", "listener", Readers::kBlocked, MakeCycloneDds},
#endif
#ifdef KVO_PEER_FAST_DDS
        {"Fast DDS", "data sharing", Readers::kBlocked, MakeFastDds},
#endif
        {"ZeroMQ", "ipc", Readers::kBlocked, MakeZeroMqIpc},
        {"ZeroMQ", "tcp", Readers::kBlocked, MakeZeroMqTcp},
#ifdef KVO_PEER_NNG
        {"NNG", "ipc", Readers::kBlocked, MakeNng},
#endif
    };
}

}  // namespace kvo::bench

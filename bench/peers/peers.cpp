#include "peers.h"

namespace kvo::bench {

std::vector<System> Systems() {
    return {
        {"kvo", "local topics", false, MakeKvo},
        {"kvo", "polled", true, MakeKvo},
        {"kvo", "wire", false, MakeKvoWire},
        {"raw ring", "futex", false, MakeRawRing},
        {"raw ring", "polled", true, MakeRawRing},
#ifdef KVO_PEER_ICEORYX
        {"iceoryx", "listener", false, MakeIceoryx},
        {"iceoryx", "polled", true, MakeIceoryx},
#endif
#ifdef KVO_PEER_CYCLONE_DDS
        {"Cyclone DDS", "listener", false, MakeCycloneDds},
#endif
#ifdef KVO_PEER_FAST_DDS
        {"Fast DDS", "data sharing", false, MakeFastDds},
#endif
        {"ZeroMQ", "ipc", false, MakeZeroMqIpc},
        {"ZeroMQ", "tcp", false, MakeZeroMqTcp},
#ifdef KVO_PEER_NNG
        {"NNG", "ipc", false, MakeNng},
#endif
    };
}

}  // namespace kvo::bench

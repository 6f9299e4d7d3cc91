#include "kvo/os/process_identity.h"

#include "kvo/os/random_bytes.h"

namespace kvo::os {
namespace {

ProcessIdentity Draw() {
    ProcessIdentity identity{};
    // A first byte of zero marks names that the transport itself gives to connections.
    while (identity[0] == 0) {
        FillRandom(identity.data(), identity.size());
    }
    return identity;
}

}  // namespace

const ProcessIdentity& OwnProcessIdentity() {
    static const ProcessIdentity identity = Draw();
    return identity;
}

}  // namespace kvo::os

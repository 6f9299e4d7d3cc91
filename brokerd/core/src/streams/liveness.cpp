#include "streams/liveness.h"

#include "kvo/os/process_identity.h"

#include <algorithm>

namespace kvo::brokerd {

Client::State Client::Judge(const Processes& processes, TimePoint now,
                            std::chrono::seconds timeout) {
    if (awaits_process()) {
        os::ProcessIdentity identity;
        // A client takes its byte with the stream file, after it has been registered.
        std::copy(identity_.begin(), identity_.end(), identity.begin());
        tag_ = processes.Find(identity);
    }
    if (tag_ && !processes.Lives(*tag_)) {
        state_ = State::kDead;
    } else if (timeout.count() == 0 || now - beat_ <= timeout) {
        state_ = State::kAlive;
    } else {
        // One that answers has ended its heartbeats itself. One that does not may stand in a
        // debugger or on a machine that is out of breath, which is no reason to take its stream.
        state_ = tag_ && !processes.Connected(identity_) ? State::kStalled : State::kSilent;
    }
    return state_;
}

}  // namespace kvo::brokerd

#include "streams/liveness.h"

#include "kvo/os/process_identity.h"

#include <algorithm>

namespace kvo::brokerd {

ClientIdentity ParseIdentity(std::string_view bytes) {
    os::ProcessIdentity identity;
    if (bytes.size() != identity.size()) {
        return std::nullopt;
    }
    std::copy(bytes.begin(), bytes.end(), identity.begin());
    return identity;
}

Client::State Client::Judge(const Processes& processes, TimePoint now,
                            std::chrono::seconds timeout) {
    if (awaits_process()) {
        // A client takes its byte with the stream file, after it has been registered.
        tag_ = processes.Find(*registrant_.identity);
    }
    if (tag_ && !processes.Lives(*tag_)) {
        state_ = State::kDead;
    } else if (timeout.count() == 0 || now - heartbeat_ <= timeout) {
        state_ = State::kAlive;
    } else {
        // A client that answers has ended its heartbeats itself. One that does not may be stopped
        // in a debugger or starved under overload, which is no reason to take its stream.
        state_ =
            tag_ && !processes.Connected(*registrant_.identity) ? State::kStalled : State::kSilent;
    }
    return state_;
}

}  // namespace kvo::brokerd

#include "liveness.h"

#include <algorithm>

namespace kvo::brokerd {

Client::State Client::Judge(const Processes& processes, TimePoint now,
                            std::chrono::seconds timeout) {
    if (awaits_process()) {
        ProcessIdentity identity;
        // A client takes its byte with the stream file, after it has been registered.
        std::copy(identity_.begin(), identity_.end(), identity.begin());
        tag_ = processes.Find(identity);
    }
    if (tag_ && !processes.Lives(*tag_)) {
        return State::kDead;
    }
    return timeout.count() > 0 && now - beat_ > timeout ? State::kSilent : State::kAlive;
}

}  // namespace kvo::brokerd

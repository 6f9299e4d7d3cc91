#pragma once

#include "kvo/brokerd/broker_state.h"
#include "kvo/os/thread_bound.h"

#include <deque>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// The newest events of a broker, for people. Threads: one.
class EventLog {
public:
    void Add(std::string kind, std::string stream, std::string text = {});
    std::vector<BrokerEvent> Newest() const {
        thread_.here();
        return {events_.begin(), events_.end()};
    }

private:
    os::ThreadBound thread_;
    std::deque<BrokerEvent> events_;
};

}  // namespace kvo::brokerd

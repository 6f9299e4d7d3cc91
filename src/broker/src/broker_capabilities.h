#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace kvo {

/// What a client's broker has answered to GetCapabilities, see kvo/broker/capabilities.h.
/// Threads: any; an answer that arrives during a call takes effect with the next one.
class BrokerCapabilities {
public:
    /// After each connection.
    void Set(const std::vector<std::string>& capabilities);
    /// After the loss of the connection: the next one may lead to another broker.
    void Reset();

    /// Notification port whose topics are in shared memory; 0: notifications go over the wire.
    std::uint16_t topic_port() const { return topic_port_; }
    bool local_accounting() const { return local_accounting_; }

private:
    std::atomic<std::uint16_t> topic_port_{0};
    std::atomic<bool> local_accounting_{false};
};

}  // namespace kvo

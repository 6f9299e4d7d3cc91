#include "broker_capabilities.h"

#include "kvo/broker/capabilities.h"

#include <charconv>
#include <string_view>

namespace kvo {
namespace {

// 0: the text is no capability of this name with a port.
std::uint16_t PortOf(std::string_view capability, std::string_view name) {
    if (capability.size() <= name.size() || capability.substr(0, name.size()) != name ||
        capability[name.size()] != ' ') {
        return 0;
    }
    std::uint16_t port = 0;
    const char* const end = capability.data() + capability.size();
    const auto [stop, error] = std::from_chars(capability.data() + name.size() + 1, end, port);
    return error == std::errc() && stop == end ? port : std::uint16_t{0};
}

}  // namespace

void BrokerCapabilities::Set(const std::vector<std::string>& capabilities) {
    std::uint16_t topic_port = 0;
    bool local_accounting = false;
    for (const std::string& capability : capabilities) {
        if (const std::uint16_t port = PortOf(capability, kLocalTopicsCapability); port != 0) {
            topic_port = port;
        }
        local_accounting = local_accounting || capability == kLocalAccountingCapability;
    }
    topic_port_ = topic_port;
    local_accounting_ = local_accounting;
}

void BrokerCapabilities::Reset() {
    Set({});
}

}  // namespace kvo

#include "local_notifier.h"

#include "kvo/broker/capabilities.h"

#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

namespace kvo {
namespace {

constexpr std::chrono::seconds kLookAgain{1};  // for a topic that has no memory

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

void LocalNotifier::SetCapabilities(const std::vector<std::string>& capabilities) {
    const std::lock_guard lock(mutex_);
    port_ = 0;
    bool counts_by_itself = false;
    for (const std::string& capability : capabilities) {
        if (const std::uint16_t port = PortOf(capability, kLocalTopicsCapability); port != 0) {
            port_ = port;
        }
        counts_by_itself = counts_by_itself || capability == kLocalAccountingCapability;
    }
    counts_by_itself_ = counts_by_itself;
}

void LocalNotifier::Reset() {
    const std::lock_guard lock(mutex_);
    port_ = 0;
    counts_by_itself_ = false;
    topics_.clear();
}

[[gnu::hot]] std::shared_ptr<gorm::cor::ps::LocalTopic> LocalNotifier::Find(
    const std::string& stream) {
    std::unique_lock lock(mutex_);
    if (port_ == 0) {
        return nullptr;
    }
    const auto [place, added] = topics_.try_emplace(stream);
    Topic& topic = place->second;
    if (topic.memory != nullptr && !topic.memory->closed()) {
        return topic.memory;
    }
    const auto now = std::chrono::steady_clock::now();
    if (!added && topic.memory == nullptr && now - topic.looked < kLookAgain) {
        return nullptr;
    }
    topic.memory = nullptr;  // others use the wire meanwhile
    topic.looked = now;
    const std::uint16_t port = port_;
    lock.unlock();
    std::shared_ptr found = gorm::cor::ps::LocalTopic::Find(host_, port, "/" + stream);
    lock.lock();
    // Not if the connection was lost meanwhile.
    if (const auto again = topics_.find(stream); port_ == port && again != topics_.end()) {
        again->second.memory = found;
    }
    return found;
}

[[gnu::hot]] LocalNotifier::Way LocalNotifier::Notify(const std::string& stream) {
    const auto topic = Find(stream);
    if (topic == nullptr) {
        return Way::kWire;
    }
    topic->Notify();
    return topic->relayed() ? Way::kBoth : Way::kMemory;
}

}  // namespace kvo

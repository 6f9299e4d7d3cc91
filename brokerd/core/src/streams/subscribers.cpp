#include "streams/subscribers.h"

#include "streams/stream_name.h"

#include <cassert>

namespace kvo::brokerd {
namespace {

constexpr std::int32_t kSubscriberUnknown = -1;
// A client unregisters before it ends its heartbeats.
constexpr std::chrono::seconds kDepartureGrace{5};

}  // namespace

Verdict Subscribers::Check(const Registrant& registrant, const SubscriberId& subscriber,
                           const StreamName& stream) const {
    if (Verdict verdict = admission_.CheckSubscriber(stream, subscriber); verdict.refused()) {
        return verdict;
    }
    return quotas_.Check(registrant, stream, 0);
}

Verdict Subscribers::Add(const Registrant& registrant, const SubscriberId& subscriber,
                         const StreamName& stream) {
    if (Verdict verdict = Check(registrant, subscriber, stream); verdict.refused()) {
        return verdict;
    }
    table_.FindOrAdd(stream).subscribers.insert_or_assign(subscriber,
                                                          Client(registrant, table_.Now()));
    subscriptions_[subscriber].insert(stream);
    return {};
}

Verdict Subscribers::Remove(const ClientIdentity& caller, const StreamName& name,
                            const SubscriberId& subscriber) {
    Stream* const stream = table_.Find(name);
    const auto found = stream == nullptr ? decltype(stream->subscribers)::iterator()
                                         : stream->subscribers.find(subscriber);
    if (stream == nullptr || found == stream->subscribers.end()) {
        return {kSubscriberUnknown, Titled(name) + " has no subscriber " + Quoted(subscriber)};
    }
    if (!found->second.Is(caller)) {
        return {kSubscriberUnknown,
                Titled(name) + ": subscriber " + Quoted(subscriber) + " is of another process"};
    }
    stream->subscribers.erase(found);
    Forget(subscriber, name);
    departed_[subscriber] = table_.Now() + kDepartureGrace;
    table_.EraseUnused(name);
    return {};
}

void Subscribers::Clear() {
    for (auto& [name, stream] : table_.streams()) {
        stream.subscribers.clear();
    }
    subscriptions_.clear();
}

void Subscribers::Forget(const SubscriberId& subscriber, const StreamName& stream) {
    const auto found = subscriptions_.find(subscriber);
    assert(found != subscriptions_.end());
    found->second.erase(stream);
    if (found->second.empty()) {
        subscriptions_.erase(found);
    }
}

bool Subscribers::OnHeartbeat(const ClientIdentity& caller, const SubscriberId& subscriber) {
    bool known = departed_.count(subscriber) != 0;
    if (const auto found = subscriptions_.find(subscriber); found != subscriptions_.end()) {
        for (const StreamName& name : found->second) {
            Client& client = table_.Find(name)->subscribers.at(subscriber);
            if (client.Is(caller)) {
                client.OnHeartbeat(table_.Now());
                known = true;
            }
        }
    }
    return known;
}

std::size_t Subscribers::CountOf(const StreamName& name) const {
    const Stream* const stream = table_.Find(name);
    return stream == nullptr ? 0 : stream->subscribers.size();
}

void Subscribers::Supervise(const StreamName& name, Stream& stream) {
    for (auto entry = stream.subscribers.begin(); entry != stream.subscribers.end();) {
        auto& [subscriber, client] = *entry;
        const bool stalled_before = client.stalled();
        const Client::State state = table_.Judge(client);
        if (state == Client::State::kAlive || state == Client::State::kStalled) {
            table_.LogStalled(name, "subscriber " + Quoted(subscriber), stalled_before, client);
            ++entry;
            continue;
        }
        table_.LogInfo(name, "subscriber " + Quoted(subscriber) + " is gone");
        Forget(subscriber, name);
        entry = stream.subscribers.erase(entry);
    }
}

void Subscribers::ForgetDeparted() {
    std::erase_if(departed_, [this](const auto& entry) { return table_.Now() >= entry.second; });
}

}  // namespace kvo::brokerd

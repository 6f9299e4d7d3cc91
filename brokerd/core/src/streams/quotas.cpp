#include "streams/quotas.h"

#include "streams/stream_name.h"
#include "streams/stream_table.h"

#include <algorithm>

namespace kvo::brokerd {
namespace {

std::string CheckLimit(const std::string& owner, const char* what, std::uint64_t used,
                       std::uint64_t requested, std::uint64_t limit) {
    if (limit == 0 || requested == 0 || used + requested <= limit) {
        return {};
    }
    return owner + " requests " + std::to_string(requested) + " " + what + " and uses " +
           std::to_string(used) + ", at most " + std::to_string(limit) + " are possible";
}

}  // namespace

std::string Quota::Check(const std::string& owner, const Usage& used,
                         const Usage& requested) const {
    const std::string error =
        CheckLimit(owner, "more streams", used.streams, requested.streams, streams);
    return error.empty()
               ? CheckLimit(owner, "bytes of shared memory", used.bytes, requested.bytes, bytes)
               : error;
}

// What the clients that `counts` names have, without the stream that is registered anew.
template <class Counts>
Usage Quotas::UsageOf(Counts counts, const StreamName& except) const {
    Usage usage;
    for (const auto& [name, stream] : table_.streams()) {
        if (name == except) {
            continue;
        }
        const bool publishes = stream.publisher && counts(stream.publisher->client);
        if (publishes && stream.file != nullptr) {
            usage.bytes += stream.file->geometry().total_bytes();
        }
        usage.streams +=
            publishes || std::any_of(stream.subscribers.begin(), stream.subscribers.end(),
                                     [&](const auto& entry) { return counts(entry.second); });
    }
    return usage;
}

Verdict Quotas::Check(const Registrant& registrant, const StreamName& stream,
                      std::uint64_t bytes) const {
    const Usage requested{1, bytes};
    const auto& [per_client, per_user] =
        std::tie(table_.settings().per_client, table_.settings().per_user);
    std::string error;
    if (per_client.limits()) {
        const auto is_client = [&](const Client& client) { return client.Is(registrant.identity); };
        error = per_client.Check("this process", UsageOf(is_client, stream), requested);
    }
    if (error.empty() && per_user.limits()) {
        const auto is_user = [&](const Client& client) { return client.user() == registrant.user; };
        error = per_user.Check(registrant.user, UsageOf(is_user, stream), requested);
    }
    return error.empty() ? Verdict{} : Verdict{kLimitReached, Titled(stream) + ": " + error};
}

}  // namespace kvo::brokerd

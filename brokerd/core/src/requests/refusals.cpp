#include "requests/refusals.h"

#include "streams/stream_name.h"

namespace kvo::brokerd {
namespace {

constexpr std::size_t kKeptRefusals = 1000;

const std::string& KeyOf(const Refusals::Caller& caller) {
    return caller.identity.empty() ? caller.connection : caller.identity;
}

}  // namespace

void Refusals::Add(const Caller& caller, const StreamName& stream, const std::string& code,
                   const std::string& reason) {
    ++count_;
    log_(3, "refused" + code + ": " + reason);
    events_.Add("refused", Quoted(stream), reason);
    Keep(caller, stream, reason);
}

void Refusals::Keep(const Caller& caller, const StreamName& stream, std::string reason) {
    thread_.here();
    if (stream.text().size() > kMaxNameBytes) {  // no name, and no reason to keep so much
        return;
    }
    const Key key{KeyOf(caller), stream};
    if (reasons_.insert_or_assign(key, std::move(reason)).second) {
        order_.push_back(key);
    }
    if (order_.size() > kKeptRefusals) {
        reasons_.erase(order_.front());
        order_.pop_front();
    }
}

void Refusals::Forget(const Caller& caller, const StreamName& stream) {
    thread_.here();
    const Key key{KeyOf(caller), stream};
    if (reasons_.erase(key) != 0) {
        std::erase(order_, key);
    }
}

std::string Refusals::Of(const Caller& caller, const StreamName& stream) const {
    thread_.here();
    const auto found = reasons_.find({KeyOf(caller), stream});
    return found == reasons_.end() ? std::string() : found->second;
}

}  // namespace kvo::brokerd

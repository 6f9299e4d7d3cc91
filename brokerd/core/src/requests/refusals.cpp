#include "requests/refusals.h"

#include "streams/stream_name.h"

namespace kvo::brokerd {
namespace {

constexpr std::size_t kKeptRefusals = 1000;

}  // namespace

void Refusals::Keep(const std::string& asker, const std::string& stream, std::string reason) {
    if (stream.size() > kMaxNameBytes) {  // no name, and nobody's memory to fill
        return;
    }
    const Key key{asker, stream};
    if (reasons_.insert_or_assign(key, std::move(reason)).second) {
        order_.push_back(key);
    }
    if (order_.size() > kKeptRefusals) {
        reasons_.erase(order_.front());
        order_.pop_front();
    }
}

void Refusals::Forget(const std::string& asker, const std::string& stream) {
    const Key key{asker, stream};
    if (reasons_.erase(key) != 0) {
        std::erase(order_, key);
    }
}

std::string Refusals::Of(const std::string& asker, const std::string& stream) const {
    const auto found = reasons_.find({asker, stream});
    return found == reasons_.end() ? std::string() : found->second;
}

}  // namespace kvo::brokerd

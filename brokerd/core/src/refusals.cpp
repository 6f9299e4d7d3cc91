#include "refusals.h"

namespace kvo::brokerd {
namespace {

constexpr std::size_t kKept = 1000;

}  // namespace

void Refusals::Keep(const std::string& asker, const std::string& stream, std::string reason) {
    const Key key{asker, stream};
    if (reasons_.insert_or_assign(key, std::move(reason)).second) {
        order_.push_back(key);
    }
    if (order_.size() > kKept) {
        reasons_.erase(order_.front());
        order_.pop_front();
    }
}

std::string Refusals::Of(const std::string& asker, const std::string& stream) const {
    const auto found = reasons_.find({asker, stream});
    return found == reasons_.end() ? std::string() : found->second;
}

}  // namespace kvo::brokerd

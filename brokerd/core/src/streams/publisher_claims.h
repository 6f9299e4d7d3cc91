#pragma once

#include <deque>
#include <set>
#include <string>
#include <utility>

namespace kvo::brokerd {

/// Which processes have asked to publish which streams; the newest ten thousand. Such a process
/// takes leave of a stream that may be another's by now, and never means to end that one.
/// Threads: one.
class PublisherClaims {
public:
    void Keep(const std::string& asker, const std::string& stream) {
        if (claims_.emplace(asker, stream).second) {
            order_.emplace_back(asker, stream);
        }
        if (order_.size() > kKept) {
            claims_.erase(order_.front());
            order_.pop_front();
        }
    }
    bool Has(const std::string& asker, const std::string& stream) const {
        return claims_.count({asker, stream}) != 0;
    }

private:
    static constexpr std::size_t kKept = 10'000;
    using Claim = std::pair<std::string, std::string>;
    std::set<Claim> claims_;
    std::deque<Claim> order_;  // oldest first
};

}  // namespace kvo::brokerd

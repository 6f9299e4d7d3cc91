#pragma once

#include <deque>
#include <map>
#include <string>
#include <utility>

namespace kvo::brokerd {

/// Why registrations were refused, for those who ask afterwards; the newest thousand.
/// Threads: one.
class Refusals {
public:
    void Keep(const std::string& asker, const std::string& stream, std::string reason);
    void Forget(const std::string& asker, const std::string& stream);
    /// Empty: the asker has not been refused the stream since it was last given it.
    std::string Of(const std::string& asker, const std::string& stream) const;

private:
    using Key = std::pair<std::string, std::string>;  // asker, stream
    std::map<Key, std::string> reasons_;
    std::deque<Key> order_;  // oldest first
};

}  // namespace kvo::brokerd

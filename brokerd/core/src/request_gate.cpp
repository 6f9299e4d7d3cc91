#include "request_gate.h"

#include <algorithm>
#include <stdexcept>

namespace kvo::brokerd {

void RequestGate::Admit(const std::string& connection, TimePoint now) {
    auto found = connections_.find(connection);
    if (found == connections_.end()) {
        if (connections_.size() >= limits_.connections) {
            ++throttled_;
            throw std::runtime_error("refused: there are already " +
                                     std::to_string(limits_.connections) + " connections");
        }
        found = connections_.emplace(connection, Bucket{double(limits_.burst), now}).first;
    }
    ++admitted_;
    if (limits_.rate == 0) {
        return;
    }
    Bucket& bucket = found->second;
    const double seconds = std::chrono::duration<double>(now - bucket.filled).count();
    bucket.left = std::min(double(limits_.burst), bucket.left + seconds * limits_.rate);
    bucket.filled = now;
    if (bucket.left < 1) {
        --admitted_;
        ++throttled_;
        throw std::runtime_error("refused: more than " + std::to_string(limits_.rate) +
                                 " requests a second and " + std::to_string(limits_.burst) +
                                 " at once on one connection");
    }
    bucket.left -= 1;
}

}  // namespace kvo::brokerd

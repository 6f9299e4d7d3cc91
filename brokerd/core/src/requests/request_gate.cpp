#include "requests/request_gate.h"

#include <algorithm>
#include <stdexcept>

namespace kvo::brokerd {

void RequestGate::Fill(Bucket& bucket, TimePoint now) const {
    const double seconds = std::chrono::duration<double>(now - bucket.filled).count();
    bucket.left = std::min(double(limits_.burst), bucket.left + seconds * limits_.rate);
    bucket.filled = now;
}

void RequestGate::Admit(const std::string& connection, TimePoint now) {
    thread_.here();
    if (limits_.rate != 0) {
        const auto place = connections_.try_emplace(connection, Bucket{double(limits_.burst), now});
        Bucket& bucket = place.first->second;
        Fill(bucket, now);
        if (bucket.left < 1) {
            ++throttled_;
            throw std::runtime_error("refused: more than " + std::to_string(limits_.rate) +
                                     " requests a second and " + std::to_string(limits_.burst) +
                                     " at once on one connection");
        }
        bucket.left -= 1;
    }
    ++admitted_;
}

void RequestGate::ForgetIdle(TimePoint now) {
    std::erase_if(connections_, [&](const auto& entry) {
        Bucket bucket = entry.second;
        Fill(bucket, now);
        return bucket.left >= limits_.burst;
    });
}

}  // namespace kvo::brokerd

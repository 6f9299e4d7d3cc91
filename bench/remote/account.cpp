#include "account.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace kvo::bench {

std::uint64_t Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

Progress& Progress::At(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::ftruncate(file, sizeof(Progress)) != 0) {
        throw std::system_error(errno, std::generic_category(), "opening " + path);
    }
    void* const memory =
        ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mapping " + path);
    }
    return *static_cast<Progress*>(memory);
}

void Account::Take(const unsigned char* payload) {
    const std::uint64_t now = Now();
    std::uint64_t sent = 0;
    std::memcpy(&sent, payload, sizeof sent);
    if (progress_.ready.load(std::memory_order_relaxed) == 0) {
        progress_.ready.store(1, std::memory_order_relaxed);
    }
    if (sent == 0) {
        return;  // to find out whether the way is open
    }
    latencies_.push_back(static_cast<std::uint32_t>(std::min<std::uint64_t>(now - sent, ~0U)));
    progress_.last_ns.store(now, std::memory_order_relaxed);
    progress_.received.store(latencies_.size(), std::memory_order_relaxed);
}

std::string Account::Json() const {
    std::vector<std::uint32_t> sorted = latencies_;
    std::sort(sorted.begin(), sorted.end());
    const auto at = [&sorted](double share) {
        return sorted.empty() ? 0.0
                              : sorted[static_cast<std::size_t>(
                                    share * static_cast<double>(sorted.size() - 1))] /
                                    1000.0;
    };
    return "{\"received\": " + std::to_string(sorted.size()) +
           ", \"latency_us\": " + std::to_string(at(0.5)) +
           ", \"latency_p99_us\": " + std::to_string(at(0.99)) + "}";
}

}  // namespace kvo::bench

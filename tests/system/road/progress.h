#pragma once

#include <atomic>
#include <cstdint>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace kvo::test {

/// How far each subscriber has come, in a file that the publisher and they share, so that the
/// publisher can keep to the pace of the slowest. Each subscriber stores its own count [progress],
/// release: the publisher's acquire load then knows that its samples are taken.
class Progress {
public:
    static constexpr unsigned kMaxSubscribers = 8;

    explicit Progress(const std::string& path) {
        const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0 || ::ftruncate(file, kBytes) != 0) {
            throw std::runtime_error("cannot make " + path);
        }
        void* const begin = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ::close(file);
        if (begin == MAP_FAILED) {
            throw std::runtime_error("cannot map " + path);
        }
        taken_ = static_cast<std::atomic<std::uint64_t>*>(begin);
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { ::munmap(taken_, kBytes); }

    void Set(unsigned subscriber, std::uint64_t samples) {
        taken_[subscriber].store(samples, std::memory_order_release);  // [progress]
    }
    std::uint64_t Slowest(unsigned subscribers) const {
        std::uint64_t least = UINT64_MAX;
        for (unsigned i = 0; i < subscribers; ++i) {
            const std::uint64_t taken = taken_[i].load(std::memory_order_acquire);  // [progress]
            least = taken < least ? taken : least;
        }
        return least;
    }

private:
    static constexpr std::size_t kBytes = kMaxSubscribers * sizeof(std::atomic<std::uint64_t>);
    std::atomic<std::uint64_t>* taken_;
};

}  // namespace kvo::test

#include "stop_signal.h"

#include "kvo/os/file_descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <system_error>

namespace kvo::tools {
namespace {

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

int MillisecondsUntil(const StopSignal::Deadline& deadline) {
    if (!deadline) {
        return -1;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    // An hour at most per wait: an int holds it, and the caller's loop goes on.
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
}

}  // namespace

void BlockStopSignals() {
    const sigset_t set = StopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

StopSignal::StopSignal() {
    const sigset_t set = StopSignals();
    signals_ = os::FileDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (signals_.get() < 0) {
        throw std::system_error(errno, std::system_category(), "signalfd");
    }
}

bool StopSignal::requested() {
    if (!requested_) {
        WaitUntil(std::chrono::steady_clock::now());
    }
    return requested_;
}

bool StopSignal::Wait(std::span<pollfd> watched, Deadline deadline) {
    while (!requested_) {
        std::array<pollfd, 3> set{pollfd{signals_.get(), POLLIN, 0}};
        const auto end = std::copy(watched.begin(), watched.end(), set.begin() + 1);
        const auto size = static_cast<nfds_t>(end - set.begin());
        const int ready = ::poll(set.data(), size, MillisecondsUntil(deadline));
        if (ready < 0 && errno != EINTR) {
            throw std::system_error(errno, std::system_category(), "poll");
        }
        if (ready > 0 && set[0].revents != 0) {
            requested_ = true;
        } else if (ready > 0) {
            std::copy(set.begin() + 1, end, watched.begin());
            return true;
        } else if (ready == 0 && deadline && std::chrono::steady_clock::now() >= *deadline) {
            return false;
        }
    }
    return false;
}

}  // namespace kvo::tools

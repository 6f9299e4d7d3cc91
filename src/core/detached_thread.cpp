#include "core/detached_thread.h"

#include <csignal>
#include <thread>
#include <utility>

namespace kvo {
namespace {

// A thread inherits the mask of its creator.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

}  // namespace

void StartDetached(std::function<void()> function) {
    const AllSignalsBlocked blocked;
    std::thread(std::move(function)).detach();
}

}  // namespace kvo

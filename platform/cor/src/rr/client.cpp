#include "gorm/cor/rr/client.h"

#include "kvo/os/fork_guard.h"

#include <condition_variable>
#include <mutex>

namespace gorm::cor::rr {
namespace {

constexpr unsigned kClosing = 1U << 31;  // in the count of users: somebody waits for its end

// Where the last user of any closing client tells that it has left. Beside the clients, because
// the client may be gone as soon as its count says so; never destroyed, because clients may be
// destroyed by static destructors.
struct Departure {
    std::mutex mutex;
    std::condition_variable left;
};

Departure& departure() {
    static auto* const instance = new Departure;
    return *instance;
}

}  // namespace

Client::~Client() = default;

// relaxed: the owner's lock orders it before the closing of the client.
[[gnu::hot]] void Client::Enter() noexcept {
    users_.fetch_add(1, std::memory_order_relaxed);
}

[[gnu::hot]] void Client::Leave() noexcept {
    // [client-left] Release: what this user did is over for AwaitUsers, which loads with acquire.
    // The client may not be touched after this line.
    if (users_.fetch_sub(1, std::memory_order_release) == (kClosing | 1U)) {
        Departure& place = departure();
        const std::lock_guard lock(place.mutex);
        place.left.notify_all();
    }
}

void Client::AwaitUsers() noexcept {
    if (kvo::os::InForkedChild()) {
        return;  // the users are threads of another process
    }
    // relaxed: a user that misses the mark leaves before it, and the load below sees that.
    users_.fetch_or(kClosing, std::memory_order_relaxed);
    Departure& place = departure();
    std::unique_lock lock(place.mutex);
    // [client-left] Acquire: see Leave.
    place.left.wait(lock, [this] { return users_.load(std::memory_order_acquire) == kClosing; });
}

}  // namespace gorm::cor::rr

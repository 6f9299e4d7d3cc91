#include "gorm/cor/rr/client.h"

#include "kvo/os/fork_guard.h"

#include <condition_variable>
#include <mutex>

namespace gorm::cor::rr {
namespace {

constexpr unsigned kClosing = 1U << 31;  // in the count of users: AwaitUsers() waits for its end

// Where the last user of any closing client wakes AwaitUsers(). Beside the clients, because
// the client may be gone as soon as its count says so; never destroyed, because clients may be
// destroyed by static destructors.
struct LastUser {
    std::mutex mutex;
    std::condition_variable left;
};

LastUser& last_user() {
    static auto* const instance = new LastUser;
    return *instance;
}

}  // namespace

Client::~Client() = default;

// relaxed: the owner's lock orders it before the closing of the client.
[[gnu::hot]] void Client::AddUser() noexcept {
    users_.fetch_add(1, std::memory_order_relaxed);
}

[[gnu::hot]] void Client::RemoveUser() noexcept {
    // [client-left] Release: what this user did is over for AwaitUsers, which loads with acquire.
    // The client may not be touched after this line.
    if (users_.fetch_sub(1, std::memory_order_release) == (kClosing | 1U)) {
        LastUser& place = last_user();
        const std::lock_guard lock(place.mutex);
        place.left.notify_all();
    }
}

void Client::AwaitUsers() noexcept {
    if (kvo::os::InForkedChild()) {
        return;  // the users are threads of another process
    }
    // relaxed: a user that misses the bit leaves before it, and the load below sees that.
    users_.fetch_or(kClosing, std::memory_order_relaxed);
    LastUser& place = last_user();
    std::unique_lock lock(place.mutex);
    // [client-left] Acquire: see RemoveUser.
    place.left.wait(lock, [this] { return users_.load(std::memory_order_acquire) == kClosing; });
}

}  // namespace gorm::cor::rr

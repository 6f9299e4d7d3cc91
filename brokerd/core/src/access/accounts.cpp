#include "access/accounts.h"

#include <condition_variable>
#include <grp.h>
#include <map>
#include <mutex>
#include <optional>
#include <pwd.h>
#include <system_error>
#include <thread>
#include <utility>

namespace kvo::brokerd {
namespace {

using Key = std::pair<std::uint32_t, std::uint32_t>;  // user, group

constexpr std::chrono::seconds kCacheTime{30};
// The broker's loop stands for so long, once for each user.
constexpr std::chrono::milliseconds kLookupWait{200};
constexpr std::size_t kMostEntries = 1000;
constexpr int kMostGroups = 65'536;  // of the kernel

std::string GroupName(gid_t id, std::vector<char>& buffer) {
    group entry{};
    group* found = nullptr;
    ::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::string() : found->gr_name;
}

Account LookUp(const Key& key) {
    Account account;
    std::vector<char> buffer(1U << 20);
    std::vector<gid_t> ids{key.second};
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(key.first, &entry, buffer.data(), buffer.size(), &found);
    if (found != nullptr) {
        account.user = found->pw_name;
        int count = 64;
        ids.resize(static_cast<std::size_t>(count));
        if (::getgrouplist(account.user.c_str(), key.second, ids.data(), &count) < 0) {
            ids.resize(static_cast<std::size_t>(count < kMostGroups ? count : kMostGroups));
            ::getgrouplist(account.user.c_str(), key.second, ids.data(), &count);
        }
        ids.resize(static_cast<std::size_t>(count));
    }
    for (const gid_t id : ids) {
        account.groups.push_back({id, GroupName(id, buffer)});
    }
    return account;
}

}  // namespace

struct SystemAccounts::State {
    struct Entry {
        std::optional<Account> account;
        std::chrono::steady_clock::time_point found;
        bool asked = false;  // a look-up is under way
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::map<Key, Entry> entries;  // under the mutex
};

SystemAccounts::SystemAccounts() : state_(std::make_shared<State>()) {}

SystemAccounts::~SystemAccounts() = default;

Account SystemAccounts::Of(std::uint32_t user, std::uint32_t group) {
    const Key key{user, group};
    std::unique_lock lock(state_->mutex);
    if (state_->entries.size() >= kMostEntries && state_->entries.count(key) == 0) {
        std::erase_if(state_->entries, [](const auto& entry) { return !entry.second.asked; });
    }
    State::Entry& entry = state_->entries[key];
    if (!entry.asked &&
        (!entry.account || std::chrono::steady_clock::now() - entry.found > kCacheTime)) {
        entry.asked = true;
        try {
            // Detached: it cannot be ended while another host does not answer.
            std::thread([state = state_, key] {
                Account account = LookUp(key);
                const std::lock_guard guard(state->mutex);
                state->entries[key] = {std::move(account), std::chrono::steady_clock::now(), false};
                state->changed.notify_all();
            }).detach();
            if (!entry.account) {
                state_->changed.wait_for(lock, kLookupWait,
                                         [&entry] { return entry.account.has_value(); });
            }
        } catch (const std::system_error&) {  // no thread: asked again next time
            entry.asked = false;
        }
    }
    return entry.account ? *entry.account : Account{{}, {{group, {}}}};
}

}  // namespace kvo::brokerd

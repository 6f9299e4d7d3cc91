#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// A user of this host and the groups that it is in.
struct Account {
    struct Group {
        std::uint32_t id;
        std::string name;  // empty: it has none
    };
    std::string user;  // empty: the number has no name
    std::vector<Group> groups;
};

/// The names behind the numbers that the kernel tells. Threads: one.
class Accounts {
public:
    virtual ~Accounts() = default;
    /// @param group in which the process is anyhow.
    virtual Account Of(std::uint32_t user, std::uint32_t group) = 0;
};

/// The system's databases, which may be on another host and slow: what was found is kept for half
/// a minute, and the caller waits only for a moment, once. What is not known then is without names.
class SystemAccounts final : public Accounts {
public:
    SystemAccounts();
    ~SystemAccounts() override;
    Account Of(std::uint32_t user, std::uint32_t group) override;

private:
    struct State;
    const std::shared_ptr<State> state_;  // shared with look-ups, which may outlive us
};

}  // namespace kvo::brokerd

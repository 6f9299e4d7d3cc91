#pragma once

#include "access/accounts.h"
#include "gorm/cor/peer.h"
#include "kvo/broker/identifiers.h"
#include "kvo/os/thread_bound.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kvo::brokerd {

enum class Right { kPublish, kSubscribe, kAdmin };

/// One line of the rules: "allow publish /camera/* to user:alice".
struct AccessRule {
    enum class Subject { kAnyone, kLocal, kUser, kGroup, kKey };

    /// Throws std::invalid_argument naming the rule and what is wrong with it.
    static AccessRule Parse(const std::string& text);

    std::string text;
    bool allows = false;
    Right right = Right::kPublish;
    std::string pattern;  // of whole stream names; * is any run of characters
    Subject subject = Subject::kAnyone;
    std::string name;  // of the user, group or key
};

/// Decides what a peer may do with a stream. Threads: one.
class Access {
public:
    /// The name of a key; empty: it is not allowed any more.
    using KeyName = std::function<std::string(const std::string& public_key)>;

    /// @param accounts must outlive this. @param own_user the broker's, which may do what root may.
    Access(std::vector<AccessRule> rules, Accounts& accounts, std::uint32_t own_user,
           KeyName key_name);

    /// For requests from now on.
    void set_rules(std::vector<AccessRule> rules) { rules_ = std::move(rules); }

    /// Empty: the peer has the right. Else a sentence that names right, stream and peer.
    [[nodiscard]] std::string Check(const gorm::cor::Peer& peer, Right right,
                                    const StreamName& stream) const;

    /// The peer for people: "user alice (1001)".
    std::string Describe(const gorm::cor::Peer& peer) const;

private:
    bool HasByDefault(const gorm::cor::Peer& peer, Right right) const;
    bool Matches(const AccessRule& rule, const gorm::cor::Peer& peer) const;

    os::ThreadBound thread_;
    std::vector<AccessRule> rules_;
    Accounts& accounts_;
    const std::uint32_t own_user_;
    const KeyName key_name_;
};

/// Whether the whole text is of the pattern, in which * is any run of characters.
bool IsLike(std::string_view text, std::string_view pattern);

}  // namespace kvo::brokerd

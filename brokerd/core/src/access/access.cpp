#include "access/access.h"

#include "streams/stream_name.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kvo::brokerd {
namespace {

using gorm::cor::AnonymousPeer;
using gorm::cor::KeyPeer;
using gorm::cor::LocalPeer;
using gorm::cor::Peer;

constexpr std::size_t kKeyCharacters = 40;

const std::pair<std::string_view, Right> kRights[] = {
    {"publish", Right::kPublish}, {"subscribe", Right::kSubscribe}, {"admin", Right::kAdmin}};

const std::pair<std::string_view, AccessRule::Subject> kNamed[] = {
    {"user:", AccessRule::Subject::kUser},
    {"group:", AccessRule::Subject::kGroup},
    {"key:", AccessRule::Subject::kKey}};

// Sets the peers that the rule is about; false: the text names none.
bool ParseSubject(const std::string& text, AccessRule& rule) {
    if (text == "anyone" || text == "local") {
        rule.subject = text == "local" ? AccessRule::Subject::kLocal : AccessRule::Subject::kAnyone;
        return true;
    }
    for (const auto& [prefix, subject] : kNamed) {
        if (text.size() > prefix.size() && text.compare(0, prefix.size(), prefix) == 0) {
            rule.subject = subject;
            rule.name = text.substr(prefix.size());
            return subject != AccessRule::Subject::kKey || rule.name.size() == kKeyCharacters;
        }
    }
    return false;
}

std::string Verb(Right right) {
    return right == Right::kPublish     ? "publish"
           : right == Right::kSubscribe ? "subscribe to"
                                        : "administer";
}

bool IsNumber(const std::string& name, std::uint32_t number) {
    return name == std::to_string(number);
}

}  // namespace

bool IsLike(std::string_view text, std::string_view pattern) {
    std::size_t at = 0;
    std::size_t in = 0;
    // Where to go on when the text does not fit: after the last star, which takes one more.
    std::size_t star = std::string_view::npos;
    std::size_t taken = 0;
    while (at < text.size()) {
        if (in < pattern.size() && pattern[in] == '*') {
            star = in++;
            taken = at;
        } else if (in < pattern.size() && pattern[in] == text[at]) {
            ++in;
            ++at;
        } else if (star != std::string_view::npos) {
            in = star + 1;
            at = ++taken;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', in) == std::string_view::npos;
}

AccessRule AccessRule::Parse(const std::string& text) {
    const auto refuse = [&text](const std::string& error) {
        return std::invalid_argument("\"" + text + "\" is no rule: " + error);
    };
    std::istringstream stream(text);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    if (words.size() != 5 || words[3] != "to") {
        throw refuse("one reads like \"allow publish /camera/* to user:alice\"");
    }
    AccessRule rule;
    rule.text = text;
    rule.pattern = words[2];
    if (words[0] != "allow" && words[0] != "deny") {
        throw refuse("it begins with allow or deny");
    }
    rule.allows = words[0] == "allow";
    const auto* const right = std::find_if(std::begin(kRights), std::end(kRights),
                                           [&](const auto& r) { return r.first == words[1]; });
    if (right == std::end(kRights)) {
        throw refuse("the rights are publish, subscribe and admin");
    }
    rule.right = right->second;
    if (!ParseSubject(words[4], rule)) {
        throw refuse(
            "it ends with anyone, local, user:NAME, group:NAME or key: and the 40 characters of a "
            "public key");
    }
    return rule;
}

Access::Access(std::vector<AccessRule> rules, Accounts& accounts, std::uint32_t own_user,
               KeyName key_name)
    : rules_(std::move(rules)),
      accounts_(accounts),
      own_user_(own_user),
      key_name_(std::move(key_name)) {}

bool Access::HasByDefault(const Peer& peer, Right right) const {
    const auto* const local = std::get_if<LocalPeer>(&peer);
    if (right == Right::kAdmin) {
        return local != nullptr && (local->user == 0 || local->user == own_user_);
    }
    const auto* const anonymous = std::get_if<AnonymousPeer>(&peer);
    return anonymous == nullptr || anonymous->this_host;
}

bool Access::Matches(const AccessRule& rule, const Peer& peer) const {
    const auto* const local = std::get_if<LocalPeer>(&peer);
    const auto* const anonymous = std::get_if<AnonymousPeer>(&peer);
    const auto* const key = std::get_if<KeyPeer>(&peer);
    switch (rule.subject) {
        case AccessRule::Subject::kAnyone:
            return true;
        case AccessRule::Subject::kLocal:
            return local != nullptr || (anonymous != nullptr && anonymous->this_host);
        case AccessRule::Subject::kKey:
            return key != nullptr && key->public_key == rule.name;
        case AccessRule::Subject::kUser:
            return local != nullptr && (IsNumber(rule.name, local->user) ||
                                        accounts_.Of(local->user, local->group).user == rule.name);
        case AccessRule::Subject::kGroup:
            break;
    }
    if (local == nullptr) {
        return false;
    }
    const Account account = accounts_.Of(local->user, local->group);
    return std::any_of(account.groups.begin(), account.groups.end(), [&rule](const auto& group) {
        return group.name == rule.name || IsNumber(rule.name, group.id);
    });
}

std::string Access::Check(const Peer& peer, Right right, const StreamName& stream) const {
    thread_.here();
    const auto refusal = [&](const std::string& why) {
        return Describe(peer) + " has no right to " + Verb(right) + " " + Quoted(stream) + ": " +
               why;
    };
    if (const auto* const key = std::get_if<KeyPeer>(&peer);
        key != nullptr && key_name_(key->public_key).empty()) {
        return refusal("its key is not allowed any more");
    }
    if (rules_.empty()) {
        if (HasByDefault(peer, right)) {
            return {};
        }
        return refusal(right == Right::kAdmin
                           ? "without rules only root and the broker's user have it"
                           : "without rules only peers of this host and those with a key have it");
    }
    for (const AccessRule& rule : rules_) {
        if (rule.right == right && IsLike(stream, rule.pattern) && Matches(rule, peer)) {
            return rule.allows ? std::string() : refusal("the rule \"" + rule.text + "\"");
        }
    }
    return refusal("no rule allows it");
}

std::string Access::Describe(const Peer& peer) const {
    if (const auto* const local = std::get_if<LocalPeer>(&peer)) {
        const std::string user = accounts_.Of(local->user, local->group).user;
        const std::string number = std::to_string(local->user);
        return user.empty() ? "user " + number : "user " + user + " (" + number + ")";
    }
    if (const auto* const key = std::get_if<KeyPeer>(&peer)) {
        const std::string name = key_name_(key->public_key);
        return name.empty() ? "key " + key->public_key
                            : "key " + name + " (" + key->public_key + ")";
    }
    return std::get<AnonymousPeer>(peer).this_host ? "an anonymous peer of this host"
                                                   : "an anonymous peer of the network";
}

}  // namespace kvo::brokerd

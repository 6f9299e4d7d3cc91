#include "access/access.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvo::brokerd {
namespace {

using gorm::cor::AnonymousPeer;
using gorm::cor::KeyPeer;
using gorm::cor::LocalPeer;
using gorm::cor::Peer;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class KnownAccounts final : public Accounts {
public:
    Account Of(std::uint32_t user, std::uint32_t group) override {
        const auto found = known_.find(user);
        return found == known_.end() ? Account{{}, {{group, {}}}} : found->second;
    }

private:
    const std::map<std::uint32_t, Account> known_{
        {0, {"root", {{0, "root"}}}},
        {1001, {"alice", {{1001, "alice"}, {500, "camera"}}}},
        {1002, {"bob", {{1002, "bob"}, {501, "guests"}}}},
    };
};

const std::string kKey(40, 'k');
const Peer kRoot = LocalPeer{0, 0, 1};
const Peer kBroker = LocalPeer{900, 900, 2};
const Peer kAlice = LocalPeer{1001, 1001, 3};
const Peer kBob = LocalPeer{1002, 1002, 4};
const Peer kNameless = LocalPeer{1003, 501, 5};
const Peer kLoopback = AnonymousPeer{true};
const Peer kNetwork = AnonymousPeer{false};
const Peer kHolder = KeyPeer{kKey};

class AccessTest : public ::testing::Test {
protected:
    std::string Check(const std::vector<std::string>& texts, const Peer& peer, Right right,
                      const std::string& stream) {
        std::vector<AccessRule> rules;
        for (const std::string& text : texts) {
            rules.push_back(AccessRule::Parse(text));
        }
        return Access(
                   std::move(rules), accounts_, 900,
                   [](const std::string& key) { return std::string(key == kKey ? "viewer" : ""); })
            .Check(peer, right, StreamName(stream));
    }
    KnownAccounts accounts_;
};

TEST_F(AccessTest, WithoutRulesThisHostAndKeysUseStreamsAndOnlyTheBrokersUserEndsThem) {
    const struct {
        const Peer& peer;
        bool uses;
        bool ends;
    } cases[] = {{kRoot, true, true},      {kBroker, true, true},    {kAlice, true, false},
                 {kNameless, true, false}, {kLoopback, true, false}, {kNetwork, false, false},
                 {kHolder, true, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.uses, Check({}, c.peer, Right::kPublish, "x").empty());
        EXPECT_EQ(c.uses, Check({}, c.peer, Right::kSubscribe, "x").empty());
        EXPECT_EQ(c.ends, Check({}, c.peer, Right::kAdmin, "x").empty());
    }
    const Peer left = KeyPeer{std::string(40, 'l')};
    EXPECT_THAT(Check({}, left, Right::kPublish, "x"), HasSubstr("not allowed any more"));
    EXPECT_THAT(Check({"allow publish * to anyone"}, left, Right::kPublish, "x"),
                HasSubstr("not allowed any more"));
}

TEST_F(AccessTest, TheFirstRuleThatMatchesDecidesAndNoneRefuses) {
    const std::vector<std::string> rules{
        "deny publish /camera/secret* to anyone", "allow publish /camera/* to user:alice",
        "deny subscribe * to group:guests",       "allow subscribe /camera/* to local",
        "allow subscribe /log to anyone",         "allow admin * to key:" + kKey,
        "allow publish /n to user:1003",          "allow publish /g to group:501",
        "allow publish /c to group:camera"};
    const struct {
        const Peer& peer;
        Right right;
        const char* stream;
        bool allowed;
    } cases[] = {
        {kAlice, Right::kPublish, "/camera/left", true},
        {kAlice, Right::kPublish, "x/camera/left", false},
        {kAlice, Right::kPublish, "/camera/secret/1", false},
        {kBob, Right::kPublish, "/camera/left", false},
        {kRoot, Right::kPublish, "/camera/left", false},
        {kAlice, Right::kSubscribe, "/camera/left", true},
        {kLoopback, Right::kSubscribe, "/camera/left", true},
        {kBob, Right::kSubscribe, "/camera/left", false},
        {kBob, Right::kSubscribe, "/log", false},
        {kNetwork, Right::kSubscribe, "/camera/left", false},
        {kNetwork, Right::kSubscribe, "/log", true},
        {kHolder, Right::kSubscribe, "/camera/left", false},
        {kHolder, Right::kSubscribe, "/log", true},
        {kHolder, Right::kAdmin, "/log", true},
        {kRoot, Right::kAdmin, "/log", false},
        {kNameless, Right::kPublish, "/n", true},
        {kLoopback, Right::kPublish, "/n", false},
        {kBob, Right::kPublish, "/g", true},
        {kAlice, Right::kPublish, "/c", true},
        {kBob, Right::kPublish, "/c", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.allowed, Check(rules, c.peer, c.right, c.stream).empty())
            << c.stream << " " << Check(rules, c.peer, c.right, c.stream);
    }
}

TEST_F(AccessTest, StarsMatchAnyRunOfCharactersAndNothingElseDoes) {
    const struct {
        const char* pattern;
        const char* text;
        bool like;
    } cases[] = {{"*", "", true},
                 {"*", "a/b", true},
                 {"a*c", "ac", true},
                 {"a*c", "abcbc", true},
                 {"a*c", "abcb", false},
                 {"*a*b*", "xxaxxb", true},
                 {"*a*b*", "xxbxxa", false},
                 {"a", "aa", false},
                 {"a**", "a", true},
                 {"[ab]", "a", false},
                 {"a?", "ab", false},
                 {"**a", "b", false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.like, IsLike(c.text, c.pattern)) << c.pattern << " " << c.text;
    }
}

TEST(AccessRule, WhatIsNoRuleIsNamed) {
    const struct {
        std::string text;
        const char* fault;
    } cases[] = {{"", "reads like"},
                 {"allow publish * user:alice", "reads like"},
                 {"allow publish * to user:alice now", "reads like"},
                 {"permit publish * to anyone", "allow or deny"},
                 {"allow write * to anyone", "publish, subscribe and admin"},
                 {"allow publish * to alice", "user:NAME"},
                 {"allow publish * to user:", "user:NAME"},
                 {"allow publish * to key:short", "40 characters"}};
    for (const auto& c : cases) {
        try {
            AccessRule::Parse(c.text);
            ADD_FAILURE() << c.text;
        } catch (const std::invalid_argument& error) {
            EXPECT_THAT(error.what(), AllOf(HasSubstr("\"" + c.text + "\""), HasSubstr(c.fault)));
        }
    }
}

}  // namespace
}  // namespace kvo::brokerd

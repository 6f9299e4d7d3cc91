#include "remote/export_group.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::milliseconds kOld{1000};  // of what is sent by a transfer that is too slow

/// Transfers that the test moves, by whom they send to; empty: to all.
class ExportGroupTest : public ::testing::Test {
protected:
    class ScriptedTransfer final : public RemoteTransfer {
    public:
        ScriptedTransfer(ExportGroupTest& test, std::string to) : test_(test), to_(std::move(to)) {
            test_.running[to_] = this;
        }
        ~ScriptedTransfer() override { test_.running.erase(to_); }
        TransferCounters Counters() const override { return counters; }
        std::chrono::milliseconds Lag() const override { return lag; }
        TransferCounters counters;
        std::chrono::milliseconds lag{0};

    private:
        ExportGroupTest& test_;
        const std::string to_;
    };

    ExportGroupTest() {
        ExportGroup::Calls calls;
        calls.start = [this](const std::string& importer) {
            if (importer == refused) {
                throw std::runtime_error("no transfer to " + importer);
            }
            return std::make_unique<ScriptedTransfer>(*this, importer);
        };
        calls.end = [](std::unique_ptr<RemoteTransfer> transfer) { transfer.reset(); };
        calls.log = [this](int, const std::string& text) { log += text + "\n"; };
        group = std::make_unique<ExportGroup>(std::move(calls));
    }
    ~ExportGroupTest() override { group.reset(); }

    void Ask(const std::vector<std::string>& importers) {
        asking = importers;
        Pass(std::chrono::milliseconds(0));
        group->Send(7);
    }
    void Pass(std::chrono::milliseconds time) {
        for (const TimePoint end = now + time; now <= end; now += kTick) {
            for (const std::string& importer : asking) {
                group->Asked(importer, now);
            }
            for (auto& [to, transfer] : running) {
                transfer->counters.samples += rates.count(to) != 0 ? rates[to] : 10;
            }
            going_on = group->Tick(now);
        }
    }
    std::vector<std::string> Running() const {
        std::vector<std::string> names;
        for (const auto& [to, transfer] : running) {
            names.push_back(to);
        }
        return names;
    }
    void Behind(const std::string& to) { running.at(to)->lag = kOld; }

    TimePoint now{std::chrono::hours(1)};
    std::vector<std::string> asking;
    std::map<std::string, ScriptedTransfer*> running;
    std::map<std::string, std::uint64_t> rates;  // samples a tick
    std::string refused = "nobody";
    std::string log;
    bool going_on = true;
    std::unique_ptr<ExportGroup> group;
};

TEST_F(ExportGroupTest, ASlowBrokerIsSentToByItselfUntilItKeepsUp) {
    Ask({"a"});
    Behind("");
    Pass(std::chrono::seconds(2));
    EXPECT_THAT(Running(), ElementsAre("")) << "one alone holds nobody up";
    Ask({"a", "b"});
    running.at("")->lag = std::chrono::milliseconds(0);
    Pass(std::chrono::seconds(2));
    EXPECT_THAT(Running(), ElementsAre(""));
    const std::uint64_t samples = group->Total().samples;

    Behind("");
    Pass(std::chrono::milliseconds(600));
    EXPECT_THAT(Running(), ElementsAre("a", "b")) << "nobody is held up for more than a second";
    EXPECT_LE(samples, group->Total().samples);
    Behind("b");
    Ask({"a", "b", "c"});
    EXPECT_THAT(Running(), ElementsAre("a", "b", "c"));
    Pass(std::chrono::minutes(10));
    EXPECT_THAT(Running(), ElementsAre("a", "b", "c"));

    running.at("b")->lag = std::chrono::milliseconds(0);
    Pass(std::chrono::seconds(50));
    EXPECT_THAT(Running(), ElementsAre("a", "b", "c"));
    Pass(std::chrono::seconds(20));
    EXPECT_THAT(Running(), ElementsAre(""));
    Behind("");
    Pass(std::chrono::seconds(1));
    asking = {"b"};
    Pass(std::chrono::seconds(20));
    EXPECT_THAT(Running(), ElementsAre("")) << "one alone needs no other";
    asking.clear();
    Pass(std::chrono::seconds(20));
    EXPECT_FALSE(going_on);
}

TEST_F(ExportGroupTest, SamplesThatAreOverwrittenCountAsBehind) {
    Ask({"a", "b"});
    for (int i = 0; i < 10 && running.count("") != 0; ++i) {
        ++running.at("")->counters.overrun;
        Pass(std::chrono::milliseconds(0));
    }
    ASSERT_THAT(Running(), ElementsAre("a", "b"));
    for (int i = 0; i < 100; ++i) {
        ++running.at("b")->counters.dropped_by_back_pressure;
        Pass(std::chrono::seconds(1));
    }
    EXPECT_THAT(Running(), ElementsAre("a", "b"));
}

TEST_F(ExportGroupTest, WhereAllAreSlowTheyStayTogetherLongerEachTime) {
    Ask({"a", "b"});
    std::chrono::milliseconds together(0);
    for (int round = 0; round < 4; ++round) {
        Behind("");
        while (running.count("") != 0) {
            Pass(std::chrono::milliseconds(0));
            together += kTick;
        }
        Behind("a");
        Behind("b");
        Pass(std::chrono::seconds(6));
        ASSERT_THAT(Running(), ElementsAre(""));
    }
    EXPECT_GT(together, std::chrono::seconds(10 + 20 + 40 - 6));
    EXPECT_LT(together, std::chrono::seconds(10 + 20 + 40 + 6));

    Behind("");
    Pass(std::chrono::seconds(90));
    rates["b"] = 1;
    Behind("a");
    Behind("b");
    Pass(std::chrono::minutes(1));
    EXPECT_THAT(Running(), ElementsAre("a", "b")) << "one gets more by being alone";
}

TEST_F(ExportGroupTest, OthersThanBrokersGoOn) {
    group->SendToAnybody();
    Ask({"a", "b"});
    Behind("");
    refused = "b";
    Pass(std::chrono::seconds(2));
    EXPECT_THAT(Running(), ElementsAre(""));
    EXPECT_THAT(log, HasSubstr("no transfer to b"));
    refused = "nobody";
    Pass(std::chrono::seconds(12));
    EXPECT_THAT(Running(), ElementsAre("", "a", "b"));
    refused = "c";
    EXPECT_THROW(Ask({"a", "b", "c"}), std::runtime_error);
    Pass(std::chrono::seconds(12));
    EXPECT_THAT(Running(), ElementsAre("", "a", "b")) << "who can not be sent to harms nobody";
    asking = {"a", "b"};
    Pass(std::chrono::seconds(12));
    group->Send(8);
    EXPECT_THAT(Running(), ElementsAre("", "a", "b")) << "of the next segment";
    group->Pause();
    EXPECT_THAT(Running(), ElementsAre());
    asking.clear();
    Pass(std::chrono::seconds(20));
    EXPECT_FALSE(going_on);
}

}  // namespace
}  // namespace kvo::brokerd

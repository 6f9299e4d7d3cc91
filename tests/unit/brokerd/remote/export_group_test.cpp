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

/// Transfers that the test drives, by importer; empty: the shared one.
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
                ASSERT_TRUE(group->Request(importer, now));
            }
            for (auto& [to, transfer] : running) {
                transfer->counters.samples += 10;
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
    std::string refused = "none";
    std::string log;
    bool going_on = true;
    std::unique_ptr<ExportGroup> group;
};

TEST_F(ExportGroupTest, SlowImporterSplitsTheGroupUntilAllImportsEnd) {
    Ask({"a"});
    Behind("");
    Pass(std::chrono::seconds(2));
    EXPECT_THAT(Running(), ElementsAre("")) << "a single importer slows no other";
    Ask({"a", "b"});
    running.at("")->lag = std::chrono::milliseconds(0);
    Pass(std::chrono::seconds(2));
    EXPECT_THAT(Running(), ElementsAre(""));
    const std::uint64_t samples = group->Total().samples;

    Behind("");
    Pass(std::chrono::milliseconds(600));
    EXPECT_THAT(Running(), ElementsAre("a", "b")) << "within a second";
    EXPECT_LE(samples, group->Total().samples);
    Ask({"a", "b", "c"});
    EXPECT_THAT(Running(), ElementsAre("a", "b", "c"));
    Pass(std::chrono::minutes(10));
    EXPECT_THAT(Running(), ElementsAre("a", "b", "c")) << "also while all keep up";
    asking = {"b"};
    Pass(std::chrono::seconds(20));
    EXPECT_THAT(Running(), ElementsAre("b"));
    EXPECT_LE(samples, group->Total().samples) << "ended imports count on";
    asking.clear();
    Pass(std::chrono::seconds(20));
    EXPECT_FALSE(going_on);
}

TEST_F(ExportGroupTest, LostSamplesCountAsLag) {
    Ask({"a", "b"});
    for (int i = 0; i < 10 && running.count("") != 0; ++i) {
        ++(i % 2 == 0 ? running.at("")->counters.overrun
                      : running.at("")->counters.dropped_by_back_pressure);
        Pass(std::chrono::milliseconds(0));
    }
    EXPECT_THAT(Running(), ElementsAre("a", "b"));
}

TEST_F(ExportGroupTest, SharedTransferForOtherProgramsGoesOn) {
    group->SendAlways();
    Ask({"a", "b"});
    Behind("");
    refused = "b";
    Pass(std::chrono::seconds(2));
    EXPECT_THAT(Running(), ElementsAre(""));
    EXPECT_THAT(log, HasSubstr("no transfer to b"));
    EXPECT_EQ(log.find("no transfer"), log.rfind("no transfer")) << "the retry waits";
    refused = "none";
    Pass(std::chrono::seconds(12));
    EXPECT_THAT(Running(), ElementsAre("", "a", "b"));
    refused = "c";
    EXPECT_THROW(Ask({"a", "b", "c"}), std::runtime_error);
    Pass(std::chrono::seconds(12));
    EXPECT_THAT(Running(), ElementsAre("", "a", "b")) << "a failed transfer affects no other";
    asking = {"a", "b"};
    Pass(std::chrono::seconds(12));
    group->Send(8);
    EXPECT_THAT(Running(), ElementsAre("", "a", "b")) << "of the next segment";
    asking.clear();
    Pass(std::chrono::seconds(20));
    EXPECT_THAT(Running(), ElementsAre(""));
    Ask({"d"});
    EXPECT_THAT(Running(), ElementsAre("")) << "later importers share again";
    group->Pause();
    EXPECT_THAT(Running(), ElementsAre());
    asking.clear();
    Pass(std::chrono::seconds(20));
    EXPECT_FALSE(going_on);
}

}  // namespace
}  // namespace kvo::brokerd

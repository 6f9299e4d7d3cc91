#include "kvo/KvoStatisticsClient.h"
#include "probes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

namespace kvo::test {
namespace {

using Strings = std::vector<std::string>;

class Statistics : public testing::Test {
protected:
    CapturedLog log_;
    ScriptedBroker broker_;
};

TEST_F(Statistics, TheReplyIsTakenApartFieldByField) {
    const std::time_t second = 1'700'000'000;
    const std::string text = std::ctime(&second);
    const std::time_t epoch = 0;
    const std::string epoch_text = std::ctime(&epoch);
    const auto range_check = [](int index, int size) {
        return "EXCEPTION: vector::_M_range_check: __n (which is " + std::to_string(index) +
               ") >= this->size() (which is " + std::to_string(size) + ")";
    };
    const struct {
        Strings reply;
        StreamStatistics expected;
        int missing;  // index of the first missing element; -1: none
    } cases[] = {
        {{"1700000000123", "5", "10", "20", "30", "-1", "x"},
         {1'700'000'000'123'000'000, text, 5, 10, 20, 30, -1, "x"},
         -1},
        {{"1700000000123", "5", "10"}, {1'700'000'000'123'000'000, text, 5, 10, 0, 0, 0, ""}, 3},
        {{}, {}, 0},
        {{"a", "b", "", " 7", "8z", "2147483648", "t", "ignored"},
         {0, epoch_text, 0, 0, 7, 8, -2147483648, "t"},
         -1},
        {{"0", "4294967297", "99999999999999999999", "-1", "18446744073709551615", "0", ""},
         {0, epoch_text, 1, 18446744073709551615U, 18446744073709551615U, 18446744073709551615U, 0,
          ""},
         -1},
    };
    KvoStatisticsClient client(log_.kvo_logger(), broker_.uri());
    EXPECT_EQ(log_.lines(), Lines({{1, "KvoStatisticsClient: Broker connection established"}}));
    for (const auto& c : cases) {
        log_.Clear();
        broker_.ClearCalls();
        broker_.Always("GetStreamStatistics", c.reply);
        const StreamStatistics got = client.GetStatistics("cam/left");
        EXPECT_EQ(broker_.calls(), Calls({"GetStreamStatistics(cam/left)"}));
        EXPECT_EQ(got.timestamp_ns, c.expected.timestamp_ns);
        EXPECT_EQ(got.timestamp_text, c.expected.timestamp_text);
        EXPECT_EQ(got.int_value_1, c.expected.int_value_1);
        EXPECT_EQ(got.count_value_1, c.expected.count_value_1);
        EXPECT_EQ(got.count_value_2, c.expected.count_value_2);
        EXPECT_EQ(got.count_value_3, c.expected.count_value_3);
        EXPECT_EQ(got.int_value_2, c.expected.int_value_2);
        EXPECT_EQ(got.text_value, c.expected.text_value);
        Lines lines;
        if (c.missing >= 0) {
            lines = {{4, range_check(c.missing, static_cast<int>(c.reply.size()))},
                     {4, "thrown in KvoStatisticsClient: get_statistics()"}};
        }
        EXPECT_EQ(log_.lines(), lines);
    }
}

TEST_F(Statistics, ListsPassThroughAndFailuresReturnEmptyOnes) {
    broker_.Always("ListRegisteredStreams", Strings{"b", "a"});
    broker_.Always("ListConnectedBrokers", Strings{"wkp.rr://far:5000"});
    KvoStatisticsClient client(log_.kvo_logger(), broker_.full_uri());
    EXPECT_EQ(client.GetRegisteredStreams(), Strings({"b", "a"}));
    EXPECT_EQ(client.GetConnectedBrokers(), Strings({"wkp.rr://far:5000"}));

    broker_.Always("ListRegisteredStreams", ScriptedBroker::Failure{"streams unknown"});
    broker_.Always("ListConnectedBrokers", ScriptedBroker::Failure{"brokers unknown"});
    EXPECT_EQ(client.GetRegisteredStreams(), Strings());
    EXPECT_EQ(client.GetConnectedBrokers(), Strings());
    EXPECT_TRUE(
        LoggedException(log_, "streams unknown", "KvoStatisticsClient: GetRegisteredStreams()"));
    EXPECT_TRUE(
        LoggedException(log_, "brokers unknown", "KvoStatisticsClient: GetConnectedBrokers()"));
}

TEST_F(Statistics, QueryOfASilentBrokerFailsAfterThreeSeconds) {
    KvoStatisticsClient client(log_.kvo_logger(), broker_.uri());
    broker_.Always("GetStreamStatistics", ScriptedBroker::Silence{});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client.GetStatistics("cam").count_value_1, 0U);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(taken, std::chrono::milliseconds(2500));
    EXPECT_LT(taken, std::chrono::seconds(10));
    EXPECT_TRUE(
        LoggedException(log_, "GetStreamStatistics", "KvoStatisticsClient: get_statistics()"));
}

TEST_F(Statistics, QueriesFailAfterAnInvalidUri) {
    KvoStatisticsClient client(log_.kvo_logger(), "no uri");
    EXPECT_EQ(log_.Count("Invalid URI!"), 1U);
    EXPECT_TRUE(LoggedException(log_, "", "KvoStatisticsClient: Init()"));
    EXPECT_EQ(client.GetRegisteredStreams(), Strings());

    broker_.Always("ListRegisteredStreams", Strings{"a"});
    client.Init(broker_.uri());
    EXPECT_EQ(client.GetRegisteredStreams(), Strings({"a"}));
}

}  // namespace
}  // namespace kvo::test

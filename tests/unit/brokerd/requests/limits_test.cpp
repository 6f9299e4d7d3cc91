#include "requests/refusals.h"
#include "requests/request_gate.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace kvo::brokerd {
namespace {

int AdmittedOf(int wanted, RequestGate& gate, const std::string& connection, TimePoint now) {
    int admitted = 0;
    for (int i = 0; i < wanted; ++i) {
        try {
            gate.Admit(connection, now);
            ++admitted;
        } catch (const std::runtime_error&) {
        }
    }
    return admitted;
}

TEST(RequestGate, EachConnectionHasItsOwnRateAndBurst) {
    RequestGate gate({10, 30});
    TimePoint now{};
    EXPECT_EQ(AdmittedOf(100, gate, "flood", now), 30);
    EXPECT_EQ(AdmittedOf(1, gate, "other", now), 1);
    now += std::chrono::milliseconds(500);
    EXPECT_EQ(AdmittedOf(100, gate, "flood", now), 5);
    now += std::chrono::hours(1);
    EXPECT_EQ(AdmittedOf(100, gate, "flood", now), 30);
    EXPECT_EQ(gate.throttled(), 70U + 95U + 70U);
    gate.ForgetIdle(now + std::chrono::seconds(2));
    EXPECT_EQ(AdmittedOf(100, gate, "flood", now), 0) << "not idle yet";
    gate.ForgetIdle(now + std::chrono::seconds(4));
    EXPECT_EQ(AdmittedOf(100, gate, "flood", now), 30);
    gate.set_limits({0, 1});
    EXPECT_EQ(AdmittedOf(100, gate, "flood", now), 100);
}

TEST(Refusals, AreOfOneCallerAndBounded) {
    EventLog events;
    std::string log;
    Refusals refusals(events, [&](int, const std::string& text) { log += text + "\n"; });
    const Refusals::Caller a{"a", "", {}};
    const Refusals::Caller b{"", "b", {}};
    const StreamName s("s");
    refusals.Keep(a, s, "first");
    refusals.Add(a, s, " (-2)", "second");
    EXPECT_EQ(log, "refused (-2): second\n");
    EXPECT_EQ(events.Newest().at(0).text, "second");
    EXPECT_EQ(refusals.count(), 1U);
    EXPECT_EQ(refusals.Of(a, s), "second");
    EXPECT_EQ(refusals.Of(b, s), "");
    for (int i = 0; i < 1000; ++i) {
        refusals.Keep(b, StreamName(std::to_string(i)), "other");
    }
    EXPECT_EQ(refusals.Of(a, s), "");
    EXPECT_EQ(refusals.Of(b, StreamName("0")), "other");
    refusals.Forget(b, StreamName("0"));
    EXPECT_EQ(refusals.Of(b, StreamName("0")), "");
    const StreamName ill_formed(std::string(256, 'x'));
    refusals.Keep(b, ill_formed, "ill-formed");
    EXPECT_EQ(refusals.Of(b, ill_formed), "");
}

}  // namespace
}  // namespace kvo::brokerd

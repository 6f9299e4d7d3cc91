#include "gorm/cor/service_loop.h"

#include "echo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;

TEST(ServiceLoop, TimersRepeatAndRunPassesExceptionsOnUntilItIsStopped) {
    ServiceLoop loop;
    Heard ticks;
    loop.Every(std::chrono::milliseconds(1), [&] {
        ticks.Add(loop.here() ? "on the loop" : "elsewhere");
        throw std::runtime_error("logged, and the timer goes on");
    });
    EXPECT_EQ("on the loop", ticks.Await(3)[2]);
    EXPECT_THROW(loop.Run([] { throw BindError("passed on"); }), BindError);
    Heard order;
    loop.Post([&] { order.Add("posted"); });
    loop.Stop();
    loop.Post([&] { order.Add("too late"); });
    loop.Run([&] { order.Add("direct"); });
    EXPECT_THAT(order.Await(2), ElementsAre("posted", "direct"));
}

}  // namespace
}  // namespace gorm::cor::test

#include "echo.h"
#include "gorm/cor/ps/publisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <sys/wait.h>
#include <unistd.h>

// What a process can run out of, or do to itself.
namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(ForkedChild, CallsFailAtOnceAndDestructorsReturn) {
    EchoServer server;
    auto client = MakeClient(server.uri());
    auto registration = client->RegisterConnectionListener([](bool) {});
    auto topics = std::make_unique<ServiceLoop>();
    auto publisher =
        std::make_unique<ps::Publisher>(*topics, network::uri("wkp.ps://127.0.0.1:0/"));
    const std::string topic = "wkp.ps://127.0.0.1:" + std::to_string(publisher->port()) + "/a";
    auto subscriber = loadCorForUri(topic, {})
                          .getCor(network::uri(topic))
                          .CreateSubscriber<Word>(network::uri(topic), {});
    EXPECT_EQ("a", client->Say("a"));
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);  // ends a child that hangs, which the parent then reports
        int worked = 0;
        const std::function<void()> uses[] = {[&] { client->Say("a"); },
                                              [&] { client->Connect().get(); },
                                              [&] { MakeClient(server.uri()); }};
        for (const auto& use : uses) {
            try {
                use();
                ++worked;
            } catch (const Error&) {
            }
        }
        client->Tell("nobody");
        registration.Release();
        client.reset();
        subscriber.reset();
        publisher.reset();
        topics.reset();
        ::_exit(worked);
    }
    int status = -1;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status)) << "uses that worked";
    EXPECT_EQ("the parent's still works", client->Say("the parent's still works"));
}

TEST(Port, OneInUseIsRefusedByNameAndFreeAfterItsServer) {
    EchoServer server;
    const network::uri uri(server.uri());
    ServiceLoop loop;
    try {
        const rr::Server second(loop, uri, server);
        ADD_FAILURE() << "two servers at " << uri.string();
    } catch (const BindError& error) {
        EXPECT_THAT(error.what(), HasSubstr(uri.string()));
        EXPECT_THAT(error.what(), HasSubstr("in use"));
    }
    server.Stop();
    EXPECT_NO_THROW(rr::Server(loop, uri, server));
}

TEST(Loop, TimersRepeatAndRunPassesExceptionsOnUntilItIsStopped) {
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

#include "echo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <unistd.h>

namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;

/// Uses up all file descriptors but some, for as long as it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(std::size_t left) {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        rlimit few = before_;
        few.rlim_cur = 512;
        ::setrlimit(RLIMIT_NOFILE, &few);
        for (int taken = Take(); taken >= 0; taken = Take()) {
            taken_.push_back(taken);
        }
        for (; left > 0 && !taken_.empty(); --left) {
            ::close(taken_.back());
            taken_.pop_back();
        }
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors() {
        for (const int taken : taken_) {
            ::close(taken);
        }
        ::setrlimit(RLIMIT_NOFILE, &before_);
    }

private:
    static int Take() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
    rlimit before_{};
    std::vector<int> taken_;
};

TEST(Descriptors, WithoutThemEveryUseFailsWithAnErrorAndLaterWorksAgain) {
    EchoServer server;
    const auto connected = MakeClient(server.uri());
    connected->Connect().get();
    const network::uri topic("wkp.ps://127.0.0.1:1/a");
    const std::function<void()> uses[] = {
        [] { MakeClient("wkp.rr://127.0.0.1:1/a"); },
        [&] { loadCorForUri(topic.string(), {}).getCor(topic).CreateSubscriber<Word>(topic, {}); },
        [] { EchoServer another; },
        [&] { static_cast<void>(connected->RegisterConnectionListener([](bool) {})); }};
    int refused = 0;
    for (std::size_t left = 0; left < 8; ++left) {
        for (const auto& use : uses) {
            const FewDescriptors few(left);
            try {
                use();
            } catch (const Error&) {  // and nothing else
                ++refused;
            }
        }
    }
    EXPECT_LT(0, refused);
    EXPECT_EQ("a", connected->Say("a"));
    EXPECT_EQ("b", MakeClient(server.uri())->Say("b"));
}

TEST(Descriptors, AConnectionThatTakesTheLastOnesIsStillHeardOfAndUsed) {
    EchoServer server;
    server.Stop();
    const auto client = MakeClient(server.uri());
    Heard heard;
    const auto registration = client->RegisterConnectionListener(
        [&](bool connected) { heard.Add(connected ? "up" : "down"); });
    server.Start();
    const FewDescriptors one_for_each_end(2);
    EXPECT_EQ("a", client->Say("a"));
    EXPECT_THAT(heard.Await(1), ElementsAre("up"));
}

}  // namespace
}  // namespace gorm::cor::test

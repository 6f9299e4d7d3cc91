#include "echo.h"
#include "gorm/cor/ps/publisher.h"
#include "kvo/os/lock_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace gorm::cor::test {
namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;

class LocalEndpointTest : public ::testing::Test {
protected:
    Serving Here() const {
        Serving serving;
        serving.runtime_directory = place_.path();
        serving.note = "the server of the test";
        return serving;
    }
    std::string PathOf(std::uint16_t port, const char* suffix) const {
        return place_.PathOf(std::to_string(port) + suffix);
    }

    const RuntimeDirectory place_;
};

TEST_F(LocalEndpointTest, AForkedChildAndADeadServerLeaveThePortToOthers) {
    std::optional<EchoServer> mine(Here());
    EchoServer& server = *mine;
    ServiceLoop loop;
    std::optional<ps::Publisher> publisher(std::in_place, loop,
                                           network::uri("wkp.ps://127.0.0.1:0/"));
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);  // ends a child that hangs, which the parent then reports
        publisher.reset();
        mine.reset();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(kvo::os::LockFile::IsHeld(PathOf(server.port(), ".lock")));
    EXPECT_EQ("still", MakeClient(server.uri())->Say("still"));

    // As a killed server leaves them: nobody holds the lock, and nobody listens.
    server.Stop();
    { std::ofstream(PathOf(server.port(), ".lock")) << "1\nsomebody"; }
    { std::ofstream(PathOf(1, ".lock")) << "1\nsomebody"; }
    { std::ofstream(PathOf(1, ".sock")); }
    EXPECT_FALSE(kvo::os::LockFile::IsHeld(PathOf(server.port(), ".lock")));
    server.Start(Here());
    EXPECT_FALSE(fs::exists(PathOf(1, ".sock")));
    EXPECT_THAT(MakeClient(server.uri())->Say("who"), HasSubstr("local"));
}

TEST_F(LocalEndpointTest, AClientFindsTheServerOnWhicheverSocketAndHoweverLateItComesBack) {
    EchoServer server;
    const auto client = MakeClient(server.uri());
    EXPECT_EQ("anonymous of this host", client->Say("who"));
    Heard heard;
    const auto listening = client->RegisterConnectionListener(
        [&](bool connected) { heard.Add(connected ? "up" : "down"); });
    std::size_t events = 0;
    for (const bool local : {true, false, true, true}) {
        server.Stop();
        server.Start(local ? Here() : Serving{});
        events += 2;
        ASSERT_EQ(events, heard.Await(events).size());
        EXPECT_THAT(client->Say("who"), HasSubstr(local ? "local" : "anonymous"));
    }
    server.Stop();
    ASSERT_EQ(events + 1, heard.Await(events + 1).size());
    // Longer than the Unix socket has before TCP gets its turn, and shorter than until the next.
    EXPECT_EQ(boost::future_status::timeout,
              client->Connect().wait_for(boost::chrono::milliseconds(1500)));
    server.Start(Here());
    ASSERT_EQ(events + 2, heard.Await(events + 2).size());
    EXPECT_THAT(client->Say("who"), HasSubstr("local"));
}

TEST_F(LocalEndpointTest, ASocketThatTakesNobodyInKeepsNobodyFromTcp) {
    EchoServer server;
    const kvo::os::LockFile lock(PathOf(server.port(), ".lock"), "nobody", 0644);
    zmq::context_t context;
    zmq::socket_t deaf(context, zmq::socket_type::stream);  // speaks another protocol
    deaf.bind("ipc://" + PathOf(server.port(), ".sock"));
    EXPECT_EQ("anonymous of this host", MakeClient(server.uri())->Say("who"));
}

TEST_F(LocalEndpointTest, NoSocketIsTrustedThatOthersCouldHavePutThere) {
    EchoServer server(Here());
    const fs::path& place = place_.path();
    const auto answer = [&] { return MakeClient(server.uri())->Say("who"); };
    fs::permissions(place, fs::perms::group_write, fs::perm_options::add);
    EXPECT_EQ("anonymous of this host", answer());
    fs::permissions(place, fs::perms::group_write, fs::perm_options::remove);
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::chown(place.c_str(), 4711, 0));
        EXPECT_EQ("anonymous of this host", answer());
        ASSERT_EQ(0, ::chown(place.c_str(), 0, 0));
    }
    EXPECT_THAT(answer(), HasSubstr("local"));
}

TEST_F(LocalEndpointTest, TheEndOfAConnectionIsToldAtOnceOnBothSockets) {
    for (const bool local : {true, false}) {
        EchoServer server(local ? Here() : Serving{});
        std::promise<rr::Caller> left;
        server.OnDisconnect([&](const rr::Caller& caller) { left.set_value(caller); });
        auto client = MakeClient(server.uri());
        client->Say("here");
        EXPECT_EQ(1U, server.connections());
        client.reset();
        auto told = left.get_future();
        ASSERT_EQ(std::future_status::ready, told.wait_for(std::chrono::milliseconds(1500)))
            << (local ? "Unix socket" : "TCP");
        EXPECT_EQ(16U, told.get().identity.size());
        EXPECT_EQ(0U, server.connections());
    }
}

}  // namespace
}  // namespace gorm::cor::test

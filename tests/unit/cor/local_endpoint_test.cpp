#include "echo.h"
#include "gorm/cor/lock_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace gorm::cor::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

namespace fs = std::filesystem;

/// A runtime directory of its own, which this process's clients look into.
class LocalEndpointTest : public ::testing::Test {
protected:
    LocalEndpointTest() {
        EXPECT_NE(nullptr, ::mkdtemp(place_.data()));
        EXPECT_EQ(0, ::setenv("KVO_RUNTIME_DIRECTORY", place_.c_str(), 1));
    }
    ~LocalEndpointTest() override {
        ::unsetenv("KVO_RUNTIME_DIRECTORY");
        fs::remove_all(place_);
    }
    Serving Here() const {
        Serving serving;
        serving.runtime_directory = place_;
        serving.note = "the server of the test";
        return serving;
    }
    std::string PathOf(std::uint16_t port, const char* suffix) const {
        return place_ + "/" + std::to_string(port) + suffix;
    }
    bool Empty() const { return fs::is_empty(place_); }

    std::string place_ = "/tmp/kvo-test-XXXXXX";
};

TEST_F(LocalEndpointTest, OneAtATimeHasAPortAndTheFirstIsNamed) {
    std::optional<EchoServer> server(Here());
    try {
        const EchoServer second(Here(), server->port());
        ADD_FAILURE() << "two servers at one port";
    } catch (const BindError& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr(std::to_string(server->port())),
                                        HasSubstr("process " + std::to_string(::getpid())),
                                        HasSubstr("the server of the test")));
    }
    const auto client = MakeClient(server->uri());
    EXPECT_EQ("local " + std::to_string(::geteuid()) + " " + std::to_string(::getegid()) + " " +
                  std::to_string(::getpid()),
              client->Say("who"));
    server.reset();
    EXPECT_TRUE(Empty());
}

TEST_F(LocalEndpointTest, AForkedChildAndADeadServerLeaveThePortToOthers) {
    EchoServer server(Here());
    const pid_t child = ::fork();
    if (child == 0) {
        server.Stop();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(LockFile::IsHeld(PathOf(server.port(), ".lock")));
    EXPECT_EQ("still", MakeClient(server.uri())->Say("still"));

    // As a killed server leaves them: nobody holds the lock, and nobody listens.
    server.Stop();
    { std::ofstream(PathOf(server.port(), ".lock")) << "1\nsomebody"; }
    { std::ofstream(PathOf(1, ".lock")) << "1\nsomebody"; }
    { std::ofstream(PathOf(1, ".sock")); }
    EXPECT_FALSE(LockFile::IsHeld(PathOf(server.port(), ".lock")));
    server.Start(Here());
    EXPECT_FALSE(fs::exists(PathOf(1, ".sock")));
    EXPECT_THAT(MakeClient(server.uri())->Say("who"), HasSubstr("local"));
}

TEST_F(LocalEndpointTest, AClientFindsTheServerOnWhicheverSocketItComesBack) {
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
}

TEST_F(LocalEndpointTest, AClientOfAServerThatWasAwayForLongIsNoStranger) {
    EchoServer server(Here());
    const auto client = MakeClient(server.uri());
    EXPECT_THAT(client->Say("who"), HasSubstr("local"));
    Heard heard;
    const auto listening = client->RegisterConnectionListener(
        [&](bool connected) { heard.Add(connected ? "up" : "down"); });
    server.Stop();
    ASSERT_EQ(1U, heard.Await(1).size());
    // Longer than the Unix socket has before TCP gets its turn, and shorter than until the next.
    EXPECT_EQ(boost::future_status::timeout,
              client->Connect().wait_for(boost::chrono::milliseconds(1500)));
    server.Start(Here());
    ASSERT_EQ(2U, heard.Await(2).size());
    EXPECT_THAT(client->Say("who"), HasSubstr("local"));
}

TEST_F(LocalEndpointTest, ASocketThatTakesNobodyInKeepsNobodyFromTcp) {
    EchoServer server;
    const LockFile lock(PathOf(server.port(), ".lock"), "nobody", 0644);
    zmq::context_t context;
    zmq::socket_t deaf(context, zmq::socket_type::stream);  // speaks another protocol
    deaf.bind("ipc://" + PathOf(server.port(), ".sock"));
    EXPECT_EQ("anonymous of this host", MakeClient(server.uri())->Say("who"));
}

TEST_F(LocalEndpointTest, NoSocketIsTrustedThatOthersCouldHavePutThere) {
    EchoServer server(Here());
    const fs::path place(place_);
    const auto answer = [&] { return MakeClient(server.uri())->Say("who"); };
    fs::permissions(place, fs::perms::group_write, fs::perm_options::add);
    EXPECT_EQ("anonymous of this host", answer());
    fs::permissions(place, fs::perms::group_write, fs::perm_options::remove);
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::chown(place_.c_str(), 4711, 0));
        EXPECT_EQ("anonymous of this host", answer());
        ASSERT_EQ(0, ::chown(place_.c_str(), 0, 0));
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

std::string ZmtpFrame(char flags, const std::string& body) {
    return std::string{flags, static_cast<char>(body.size())} + body;
}

std::string ZmtpProperty(const std::string& name, const std::string& value) {
    return static_cast<char>(name.size()) + name + std::string(3, '\0') +
           static_cast<char>(value.size()) + value;
}

// A peer can put anything into its handshake.
TEST_F(LocalEndpointTest, WhoClaimsToBeSomebodyElseIsNot) {
    EchoServer server(Here());
    const int peer = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address));
    const std::string greeting =
        "\xff" + std::string(8, '\0') + "\x7f\x03" + std::string(1, '\0') + "NULL";
    // Sends and takes what comes up to the expected text.
    const auto exchange = [peer](const std::string& said, const std::string& expected) {
        EXPECT_EQ(static_cast<ssize_t>(said.size()), ::send(peer, said.data(), said.size(), 0));
        std::string heard;
        char bytes[1024];
        for (ssize_t got = 1; got > 0 && heard.find(expected) == std::string::npos;) {
            got = ::recv(peer, bytes, sizeof bytes, 0);
            heard.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        }
        return heard;
    };
    exchange(greeting + std::string(64 - greeting.size(), '\0') +
                 ZmtpFrame(4, "\x05READY" + ZmtpProperty("Socket-Type", "DEALER") +
                                  ZmtpProperty("Peer-Address", "localhost:0:0:1") +
                                  ZmtpProperty("User-Id", std::string(40, 'k'))),
             "READY");
    const std::string expected = "anonymous of this host";
    const std::string answer =
        exchange(ZmtpFrame(1, "/test/Echo") +
                     ZmtpFrame(0, std::string("\x94\x00\x01\xa3Say\x91\xa3who", 12)),
                 expected);
    ::close(peer);
    EXPECT_THAT(answer, HasSubstr(expected));
}

}  // namespace
}  // namespace gorm::cor::test

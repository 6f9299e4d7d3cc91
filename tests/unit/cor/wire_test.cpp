#include "echo.h"
#include "gorm/cor/rr/packing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <future>
#include <string_view>

// The bytes on the wire, against peers that know nothing of our code.
namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;
using Frames = std::vector<std::string>;
using namespace std::string_literals;

void Send(zmq::socket_t& socket, const Frames& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
        socket.send(zmq::buffer(frames[i]),
                    i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
}

/// Empty when nothing came in time.
Frames Receive(zmq::socket_t& socket) {
    Frames frames;
    zmq::message_t frame;
    while (socket.recv(frame)) {
        frames.push_back(frame.to_string());
        if (!frame.more()) {
            break;
        }
    }
    return frames;
}

zmq::socket_t MakeSocket(zmq::context_t& context, zmq::socket_type type) {
    zmq::socket_t socket(context, type);
    socket.set(zmq::sockopt::rcvtimeo, 20'000);
    socket.set(zmq::sockopt::linger, 0);
    return socket;
}

TEST(Wire, AClientWithoutIdentityIsServed) {
    EchoServer server;
    zmq::context_t context;
    auto client = MakeSocket(context, zmq::socket_type::dealer);
    client.connect("tcp://127.0.0.1:" + std::to_string(server.port()));
    const std::string path = "/test/Echo";

    Send(client, {path, "\x94\x00\x07\xa3Say\x91\xa2hi"s});
    EXPECT_THAT(Receive(client), ElementsAre(path, "\x94\x01\x07\xc0\xa2hi"s));
    Send(client, {path, "\x94\x00\x01\xa6WhoAmI\x90"s});
    EXPECT_THAT(Receive(client), ElementsAre(path, "\x94\x01\x01\xc0\xa0"s));

    // Nothing answers a notification, nor an id that no number of 32 bits is.
    Send(client, {path, "\x93\x02\xa4Tell\x91\xa2hi"s});
    EXPECT_THAT(server.told.Await(1), ElementsAre("hi"));
    Send(client, {path, "\x94\x00\xcf\0\0\0\1\0\0\0\0\xa3Say\x91\xa2no"s});
    Send(client, {"/test/Other", "\x94\x00\xce\xff\xff\xff\xff\xa3Say\x91\xa2hi"s});
    const Frames error = Receive(client);
    ASSERT_EQ(2U, error.size());
    EXPECT_EQ("/test/Other", error[0]);
    EXPECT_THAT(error[1], StartsWith("\x94\x01\xce\xff\xff\xff\xff\xd9"s));
    EXPECT_THAT(error[1], EndsWith("\xc0"));
}

TEST(Wire, AClientTakesOnlyTheReplyToItsRequest) {
    zmq::context_t context;
    auto server = MakeSocket(context, zmq::socket_type::router);
    server.bind("tcp://127.0.0.1:*");
    const auto client =
        MakeClient("wkp.rr" + server.get(zmq::sockopt::last_endpoint).substr(3) + "/p");
    auto answer = std::async(std::launch::async, [&] { return client->Say("hi"); });
    const Frames request = Receive(server);
    ASSERT_EQ(3U, request.size());
    EXPECT_EQ("/p", request[1]);
    const auto message = msgpack::unpack(request[2].data(), request[2].size());
    std::tuple<int, std::uint32_t, std::string, std::vector<std::string>> parts;
    message.get().convert(parts);
    const std::uint32_t id = std::get<1>(parts);
    EXPECT_EQ(std::tuple(0, id, "Say"s, Frames{"hi"}), parts);

    const msgpack::type::nil_t nil;
    const std::string& peer = request[0];
    const std::string wrong = rr::PackParams(1, id, nil, "wrong"s);
    for (const Frames& frames : {Frames{peer, wrong},
                                 {peer, "/p", wrong, "more"},
                                 {peer, "/other", wrong},
                                 {peer, "/p", "garbage"},
                                 {peer, "/p", rr::PackParams(1, id + 1, nil, "wrong"s)},
                                 {peer, "/p", rr::PackParams(0, id, nil, "wrong"s)},
                                 {peer, "/p", rr::PackParams(1, id, nil)},
                                 {peer, "/p", rr::PackParams(1, id, nil, "right"s)},
                                 {peer, "/p", wrong}}) {
        Send(server, frames);
    }
    EXPECT_EQ("right", answer.get());

    auto refused = std::async(std::launch::async, [&] { return client->Say("hi"); });
    const Frames second = Receive(server);
    ASSERT_EQ(3U, second.size());
    Send(server, {peer, "/p", rr::PackParams(1, id + 1, 7, nil)});  // an error that is no text
    EXPECT_THROW(refused.get(), rr::RemoteError);
    auto untyped = std::async(std::launch::async, [&] { return client->Say("hi"); });
    ASSERT_EQ(3U, Receive(server).size());
    Send(server, {peer, "/p", rr::PackParams(1, id + 2, nil, 7)});  // a number for a text
    EXPECT_THROW(untyped.get(), rr::RemoteError);
}

}  // namespace
}  // namespace gorm::cor::test

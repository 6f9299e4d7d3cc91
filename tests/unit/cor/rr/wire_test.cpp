#include "echo.h"
#include "gorm/cor/rr/packing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <future>

// The bytes on the wire, against a server and a publisher that know nothing of our code;
// tests/system/python_client.py is the client that does not.
namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;
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

TEST(Wire, AClientTakesOnlyTheReplyToItsRequest) {
    zmq::context_t context;
    zmq::socket_t server(context, zmq::socket_type::router);
    server.set(zmq::sockopt::rcvtimeo, 20'000);
    server.set(zmq::sockopt::linger, 0);
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

TEST(Wire, OnlyWholeEventsOfTheVeryTopicAreDelivered) {
    zmq::context_t context;
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.bind("tcp://127.0.0.1:*");
    const network::uri uri("wkp.ps" + publisher.get(zmq::sockopt::last_endpoint).substr(3) + "/a");
    auto subscriber = loadCorForUri(uri.string(), {}).getCor(uri).CreateSubscriber<Word>(uri, {});
    zmq::message_t subscription;
    publisher.set(zmq::sockopt::rcvtimeo, 20'000);
    ASSERT_TRUE(publisher.recv(subscription));
    const std::string topic("/a\0", 3);
    EXPECT_EQ('\1' + topic, subscription.to_string());
    Heard heard;
    const auto registration = Listen(*subscriber, heard);
    for (const std::vector<std::string>& frames : {std::vector<std::string>{topic + "b", "longer"},
                                                   {topic},
                                                   {topic, "damaged"},
                                                   {topic, "1", "later", "versions", "add", "more"},
                                                   {topic, "2"}}) {
        Send(publisher, frames);
    }
    EXPECT_THAT(heard.Await(2), ElementsAre("1", "2"));
}

}  // namespace
}  // namespace gorm::cor::test

#include "echo.h"
#include "gorm/cor/rr/packing.h"
#include "kvo/os/process_identity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <array>
#include <future>
#include <thread>

namespace gorm::cor::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(RequestReply, ManyThreadsAndClientsGetTheirOwnAnswers) {
    EchoServer server;
    const std::array clients{MakeClient(server.uri()), MakeClient(server.uri())};
    std::vector<std::future<int>> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.push_back(std::async(std::launch::async, [&, thread] {
            int wrong = 0;
            for (int i = 0; i < 200; ++i) {
                const std::string text = std::to_string(thread) + "/" + std::to_string(i);
                wrong += clients[static_cast<std::size_t>(thread % 2)]->Say(text) != text;
            }
            return wrong;
        }));
    }
    for (auto& thread : threads) {
        EXPECT_EQ(0, thread.get());
    }
    const auto& identity = kvo::os::OwnProcessIdentity();
    EXPECT_EQ(rr::PackResult(std::string(identity.begin(), identity.end())),
              clients[0]->CallAs("WhoAmI", rr::PackParams()));
}

TEST(RequestReply, AnAnswerThatComesLaterKeepsNobodyElseWaiting) {
    EchoServer server;
    const auto client = MakeClient(server.uri());
    for (const std::string answer : {"at last", ""}) {
        auto late = std::async(std::launch::async, [&] {
            return TextOf<Error>([&] { throw Error(client->Say("later")); });
        });
        while (server.AnswerLater(answer) == 0) {
            EXPECT_EQ("now", client->Say("now"));
        }
        EXPECT_THAT(late.get(), HasSubstr(answer.empty() ? "it was not to be" : answer));
    }
    auto lost = std::async(std::launch::async, [&] {
        return TextOf<rr::ConnectionLost>([&] { client->Say("later"); });
    });
    while (server.later() == 0) {
        EXPECT_EQ("now", client->Say("now"));
    }
    server.Stop();
    EXPECT_THAT(lost.get(), HasSubstr("Say"));
    EXPECT_EQ(1U, server.AnswerLater("too late")) << "which goes to nobody";
}

TEST(RequestReply, EveryWrongRequestIsAnsweredWithItsReason) {
    EchoServer server;
    const auto client = MakeClient(server.uri());
    const struct {
        const char* method;
        std::string params;
        const char* reason;
    } cases[] = {
        {"Say", rr::PackParams("refuse"), "refused by the server"},
        {"Shout", rr::PackParams("a"), "unknown method"},
        {"Say", rr::PackParams(), "1 parameters expected, 0 given"},
        {"Say", rr::PackParams(1, 2), "1 parameters expected, 2 given"},
        {"Say", rr::PackParams(7), "parameter 1 is of the wrong type"},
        {"Say", rr::PackResult(7), "no array"},
        {"Long", rr::PackParams(-1), "parameter 1 is of the wrong type"},
        {"Long", rr::PackParams(17'000'000), "at most 16777216 can be sent"},
    };
    for (const auto& wrong : cases) {
        EXPECT_THAT(
            TextOf<rr::RemoteError>([&] { client->CallAs(wrong.method, wrong.params); }),
            AllOf(HasSubstr(wrong.method), HasSubstr(server.uri()), HasSubstr(wrong.reason)));
    }
    const auto lost = MakeClient(server.uri() + "2");
    EXPECT_THAT(TextOf<rr::RemoteError>([&] { lost->Say("a"); }), HasSubstr("path"));
    EXPECT_THAT(TextOf<Error>([&] { client->Say(std::string(70'000, 'x')); }), HasSubstr("65536"));
    EXPECT_EQ("still there", client->Say("still there"));
}

TEST(RequestReply, WhoTakesNoAnswersLosesThoseBeyondTheLimit) {
    constexpr int kAsked = 60;
    EchoServer server({}, 0, 2);
    zmq::context_t context;
    zmq::socket_t slow(context, zmq::socket_type::dealer);
    slow.set(zmq::sockopt::linger, 0);
    slow.set(zmq::sockopt::rcvhwm, 1);
    slow.set(zmq::sockopt::rcvbuf, 65'536);
    slow.set(zmq::sockopt::rcvtimeo, 1000);
    slow.connect("tcp://127.0.0.1:" + std::to_string(server.port()));
    const std::string call = std::string("\x94\x00\x01\xa4Long\x91\xce\x00\x0f\x42\x40", 14);
    for (int i = 0; i < kAsked; ++i) {
        slow.send(zmq::buffer("/test/Echo", 10), zmq::send_flags::sndmore);
        slow.send(zmq::buffer(call));
    }
    const auto client = MakeClient(server.uri());
    while (server.long_calls() < kAsked) {
        client->Say("a");
    }
    int answers = 0;
    for (zmq::message_t frame; slow.recv(frame);) {
        answers += frame.more() ? 0 : 1;
    }
    EXPECT_GT(answers, 0);
    EXPECT_LT(answers, kAsked / 2);
}

TEST(RequestReply, ConnectionsBeyondTheLimitAreToldSo) {
    Heard ends;
    EchoServer server({}, 0, 1000, 1);
    server.OnDisconnect([&](const rr::Caller&) { ends.Add("left"); });
    auto first = MakeClient(server.uri());
    EXPECT_EQ("a", first->Say("a"));
    // Another name of the host, so another connection.
    const std::string uri = "wkp.rr://localhost:" + std::to_string(server.port()) + "/test/Echo";
    EXPECT_THAT(TextOf<rr::RemoteError>([&] { MakeClient(uri)->Say("a"); }),
                HasSubstr("there are already 1 connections"));
    ends.Await(1);
    first.reset();
    ends.Await(2);
    EXPECT_EQ("a", MakeClient(uri)->Say("a"));
}

TEST(RequestReply, WithoutAnAnswerTheTextTellsWhatWasWaitedFor) {
    zmq::context_t context;
    zmq::socket_t silent(context, zmq::socket_type::router);
    silent.bind("tcp://127.0.0.1:*");
    const std::string endpoint = silent.get(zmq::sockopt::last_endpoint);
    const std::string uri = "wkp.rr" + endpoint.substr(3) + "/quiet";
    EXPECT_THAT(TextOf<rr::ReplyTimeout>(
                    [&] { MakeClient(uri, std::chrono::milliseconds(300))->Say("a"); }),
                AllOf(HasSubstr("Say at " + uri), HasSubstr("no answer within 300 ms")));
    EXPECT_THAT(
        TextOf<rr::ReplyTimeout>([&] { MakeClient(uri, std::chrono::milliseconds(0))->Say("a"); }),
        HasSubstr("0 ms"));
    EXPECT_THAT(TextOf<rr::ReplyTimeout>([] {
                    MakeClient("wkp.rr://127.0.0.1:1/a", std::chrono::milliseconds(100))->Say("a");
                }),
                HasSubstr("no connection within 100 ms"));
}

TEST(RequestReply, ALossFailsTheCallsInFlightBeforeTheListenersHearOfIt) {
    zmq::context_t context;
    zmq::socket_t peer(context, zmq::socket_type::router);
    peer.set(zmq::sockopt::rcvtimeo, 20'000);
    peer.bind("tcp://127.0.0.1:*");
    const auto client =
        MakeClient("wkp.rr" + peer.get(zmq::sockopt::last_endpoint).substr(3) + "/p");
    auto text = std::async(std::launch::async,
                           [&] { return TextOf<rr::ConnectionLost>([&] { client->Say("a"); }); });
    zmq::message_t frame;
    ASSERT_TRUE(peer.recv(frame));  // the call has arrived
    Heard heard;
    const auto registration = client->RegisterConnectionListener([&](bool connected) {
        const bool failed = text.wait_for(kDeadline) == std::future_status::ready;
        heard.Add(std::string(connected ? "up" : "down") + (failed ? " after" : " before"));
    });
    peer.close();
    EXPECT_THAT(heard.Await(1), ElementsAre("down after"));
    EXPECT_THAT(text.get(), AllOf(HasSubstr("Say at wkp.rr://"), HasSubstr("/p"),
                                  HasSubstr("the connection was lost")));
}

TEST(RequestReply, ALossIsHeardInOrderAlsoBesideListenersThatThrowOrBlock) {
    EchoServer server;
    const auto blocked = MakeClient(server.uri());
    const auto client = MakeClient(server.uri());
    blocked->Connect().get();
    client->Connect().get();
    std::promise<void> go;
    Heard late;
    Heard heard;
    const auto blocking = blocked->RegisterConnectionListener(
        [&, released = go.get_future().share()](bool connected) {
            released.wait();
            late.Add(connected ? "up" : "down");
        });
    const auto throwing =
        client->RegisterConnectionListener([](bool) { throw std::runtime_error("listener"); });
    const auto registration = client->RegisterConnectionListener(
        [&](bool connected) { heard.Add(connected ? "up" : "down"); });
    server.Stop();
    EXPECT_THAT(heard.Await(1), ElementsAre("down"));
    EXPECT_THAT(TextOf<rr::ConnectionLost>([&] { client->Say("a"); }), HasSubstr("Say at"));
    client->Tell("nobody");
    server.Start();
    EXPECT_THAT(heard.Await(2), ElementsAre("down", "up"));
    EXPECT_EQ("back", client->Say("back"));
    EXPECT_EQ("a", blocked->Say("a"));
    client->Tell("one-way");
    EXPECT_THAT(server.told.Await(1), ElementsAre("one-way"));
    go.set_value();
    EXPECT_THAT(late.Await(2), ElementsAre("down", "up"));
}

TEST(RequestReply, ARequestWaitsForRoomBehindOneWayCalls) {
    EchoServer server;
    const auto client = MakeClient(server.uri());
    client->Connect().get();
    std::promise<void> go;
    bool held = false;  // on the server's loop
    server.OnSay([&, released = go.get_future().share()] {
        if (!std::exchange(held, true)) {
            released.wait();
        }
    });
    auto first = std::async(std::launch::async, [&] { return client->Say("first"); });
    const std::string large(60'000, 'x');
    for (int i = 0; i < 4'000; ++i) {  // more than all buffers on the way hold
        client->Tell(large);
    }
    auto second = std::async(std::launch::async, [&] { return client->Say("second"); });
    EXPECT_EQ(std::future_status::timeout, second.wait_for(std::chrono::milliseconds(200)));
    go.set_value();
    EXPECT_EQ("first", first.get());
    EXPECT_EQ("second", second.get());
}

TEST(RequestReply, AFirstCallWaitsForTheServer) {
    EchoServer server;
    const std::string uri = server.uri();
    server.Stop();
    const auto client = MakeClient(uri);
    auto connected = client->Connect();
    auto answer = std::async(std::launch::async, [&] { return client->Say("early"); });
    server.Start();
    EXPECT_EQ("early", answer.get());
    EXPECT_NO_THROW(connected.get());
}

TEST(RequestReply, ADestroyedClientFailsItsCallsAndItsConnect) {
    EchoServer server;
    std::promise<void> arrived;
    std::promise<void> go;
    server.OnSay([&, released = go.get_future().share()] {
        arrived.set_value();
        released.wait();
    });
    auto client = MakeClient(server.uri());
    auto text = std::async(std::launch::async, [&client = *client] {
        return TextOf<rr::ConnectionLost>([&] { client.Say("a"); });
    });
    arrived.get_future().wait();
    client.reset();
    EXPECT_THAT(text.get(), HasSubstr("closed"));
    go.set_value();

    auto unconnected = MakeClient("wkp.rr://127.0.0.1:1/nobody");
    auto connecting = unconnected->Connect();
    unconnected.reset();
    EXPECT_THROW(connecting.get(), rr::ConnectionLost);
}

TEST(RequestReply, AListenerMayLeaveFromInsideAndIsWaitedForFromOutside) {
    EchoServer server;
    const auto client = MakeClient(server.uri());
    client->Connect().get();
    Heard heard;
    rr::ListenerRegistration own;
    own = client->RegisterConnectionListener([&](bool) {
        own.Release();
        heard.Add("left");
    });
    std::promise<void> entered;
    std::promise<void> go;
    bool done = false;  // by the listener, read after its registration was released
    auto waited = client->RegisterConnectionListener([&](bool) {
        entered.set_value();
        go.get_future().wait();
        done = true;
    });
    server.Stop();
    entered.get_future().wait();
    auto released = std::async(std::launch::async, [&] {
        waited.Release();
        return done;
    });
    go.set_value();
    EXPECT_TRUE(released.get());
    EXPECT_THAT(heard.Await(1), ElementsAre("left"));
}

TEST(Cor, UrisAndPropertiesThatCannotBeUsedAreNamed) {
    EXPECT_THROW(loadCorForUri("no uri", {}), network::uri_syntax_error);
    EXPECT_THAT(TextOf<UnknownScheme>([] { loadCorForUri("http://host:1/", {}); }),
                HasSubstr("http://host:1/"));
    for (const char* uri : {"wkp.rr://host/path", "wkp.rr://host:0/path", "wkp.rr://host:70000/p",
                            "wkp.ps://127.0.0.1:1/p"}) {
        EXPECT_THAT(TextOf<Error>([&] { MakeClient(uri); }), HasSubstr(uri));
    }
    EXPECT_THAT(TextOf<Error>([] {
                    loadCorForUri("wkp.rr://h:1/", {{"colour", "red"}});
                }),
                HasSubstr("colour"));
}

}  // namespace
}  // namespace gorm::cor::test

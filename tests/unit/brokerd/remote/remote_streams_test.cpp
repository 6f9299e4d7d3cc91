#include "remote/remote_streams.h"

#include "broker_fixture.h"
#include "kvo/broker/broker_result.h"

#include <gmock/gmock.h>

#include <deque>
#include <stdexcept>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr const char* kThere = "wkp.rr://there:5000";

/// A stream on its way that the test moves.
class ScriptedTransfer final : public RemoteTransfer {
public:
    explicit ScriptedTransfer(int& running) : running_(running) { ++running_; }
    ~ScriptedTransfer() override { --running_; }
    TransferCounters Counters() const override { return counters; }
    TransferCounters counters;

private:
    int& running_;
};

/// The streams of a broker called "here", with other brokers in the test's hand.
class RemoteStreamsTest : public BrokerParts {
protected:
    struct Question {
        std::string broker;
        std::string stream;
        bool to_export;
        std::function<void(const RemoteStreams::Answer&)> answered;
    };

    RemoteStreamsTest() {
        RemoteStreams::Calls calls;
        calls.ask = [this](const std::string& broker, const std::string& stream, bool to_export,
                           std::function<void(const RemoteStreams::Answer&)> answered) {
            questions.push_back({broker, stream, to_export, std::move(answered)});
        };
        calls.start_import = [this](const RemoteStreams::ImportOrder& order) {
            return Start(order.run);
        };
        calls.start_export = [this](const RemoteStreams::ExportOrder&) { return Start(0); };
        calls.end = [](std::unique_ptr<RemoteTransfer> transfer) { transfer.reset(); };
        calls.always_exported = [this](const std::string& stream) {
            return stream == always_exported;
        };
        calls.log = [this](int, const std::string& text) { log += text + "\n"; };
        remote = std::make_unique<RemoteStreams>("id of here", "here:5000", *registry, time, calls);
    }

    std::unique_ptr<RemoteTransfer> Start(std::uint64_t run) {
        if (!engine_fault.empty()) {
            throw std::runtime_error(engine_fault);
        }
        auto transfer = std::make_unique<ScriptedTransfer>(running);
        last = transfer.get();
        last_run = run;
        return transfer;
    }

    /// A client subscribes; its results go to `told`.
    void Subscribe(const std::string& uuid, const std::string& broker = kThere,
                   std::int32_t deadline_s = 0) {
        remote->RequestImport(broker, "s", deadline_s,
                              [this, uuid](const Verdict& verdict, bool local) {
                                  told.emplace_back(uuid, verdict.code);
                                  reason = verdict.reason;
                                  was_local = local;
                                  if (!verdict.refused()) {
                                      EXPECT_EQ(1, BrokerParts::Subscribe(kAnonymous, uuid, "s"));
                                  }
                              });
    }
    void Unsubscribe(const std::string& uuid) {
        EXPECT_EQ(1, registry->subscribers().Remove({}, StreamName("s"), SubscriberId(uuid)).code);
        remote->Tick();
    }

    static StreamDescription Published(std::uint64_t epoch, std::uint32_t bytes = 64) {
        StreamDescription description;
        description.broker = "id of there";
        description.published = true;
        description.epoch = epoch;
        description.max_payload_bytes = bytes;
        description.retained_samples = 4;
        description.topic = "kvo/there/s";
        return description;
    }
    /// Answers the oldest question.
    void AnswerWith(const StreamDescription& description, const Verdict& verdict = {}) {
        ASSERT_FALSE(questions.empty());
        const Question question = std::move(questions.front());
        questions.pop_front();
        question.answered({description, verdict});
    }
    /// Lets seconds pass, in each of which lost brokers are asked again.
    void PassSeconds(int seconds) {
        for (int i = 0; i < 21 * seconds; ++i) {
            now += kTick;
            time.Tick();
            for (const std::string& uuid : beating) {
                registry->OnHeartbeat({}, uuid);
            }
            remote->Tick();
        }
    }
    void Link(bool linked) { remote->Linked("s", last_run, linked); }
    /// One subscriber, who stays, gets the stream.
    void Import(std::int32_t deadline_s = 0) {
        beating = {"1"};
        Subscribe("1", kThere, deadline_s);
        AnswerWith(Published(7));
        Link(true);
        AnswerWith(Published(7));
    }

    std::deque<Question> questions;
    std::vector<std::pair<std::string, std::int32_t>> told;
    std::vector<std::string> beating;
    std::string reason;
    bool was_local = false;
    std::string engine_fault;
    std::string always_exported;
    int running = 0;  // transfers
    ScriptedTransfer* last = nullptr;
    std::uint64_t last_run = 0;
    std::unique_ptr<RemoteStreams> remote;
};

TEST_F(RemoteStreamsTest, OneImportServesAllSubscribersAndEndsWithTheLast) {
    Subscribe("1");
    Subscribe("2");
    ASSERT_EQ(1U, questions.size());
    EXPECT_EQ(kThere, questions.front().broker);
    EXPECT_TRUE(questions.front().to_export);
    EXPECT_THAT(told, IsEmpty());
    AnswerWith(Published(7));
    EXPECT_THAT(told, ElementsAre(Pair("1", kRegistered), Pair("2", kRegistered)));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_REG)));
    Subscribe("3");
    EXPECT_EQ(3U, told.size());
    EXPECT_EQ(1, running);
    EXPECT_THAT(remote->ConnectedBrokers(), ElementsAre(kThere));

    EXPECT_FALSE(IsPublished("s"));
    EXPECT_TRUE(registry->IsTaken(StreamName("s")));
    EXPECT_EQ(kStreamInUse, Add('a', "s"));
    EXPECT_FALSE(registry->publishers().Describe(StreamName("s")).published)
        << "an imported stream is not exported again";
    Subscribe("4", "wkp.rr://elsewhere:5000");
    EXPECT_EQ(kStreamInUse, told.back().second);

    Unsubscribe("1");
    Unsubscribe("2");
    EXPECT_EQ(1, running);
    Unsubscribe("3");
    EXPECT_EQ(0, running);
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG), Pair("s", SHM_DEL)));
    EXPECT_FALSE(registry->IsTaken(StreamName("s")));
    EXPECT_THAT(remote->ConnectedBrokers(), IsEmpty());
    EXPECT_EQ(kRegistered, Add('a', "s"));
}

TEST_F(RemoteStreamsTest, RefusalsLeaveNothingBehind) {
    const auto refused = [this](std::int32_t code, const char* why) {
        EXPECT_EQ(code, told.back().second) << why;
        EXPECT_THAT(reason, HasSubstr(why));
        EXPECT_EQ(0, running);
        EXPECT_FALSE(registry->Knows(StreamName("s")));
        EXPECT_THAT(TakeEvents(), IsEmpty());
    };
    Subscribe("1");
    AnswerWith({}, {kUnknownRemoteBroker, "no broker answers"});
    refused(kUnknownRemoteBroker, "no broker answers");
    Subscribe("1");
    AnswerWith({});
    refused(kNoRemoteStream, "has no publisher of stream");
    Subscribe("1");
    AnswerWith(Published(7, 32U << 20));
    refused(kNotEnoughMemory, "bytes of shared memory requested");
    Subscribe("1");
    AnswerWith(Published(7, 0));
    refused(kIllFormedGeometry, "sample size of 0");

    Subscribe("1");
    engine_fault = "no engine";
    AnswerWith(Published(7));
    EXPECT_EQ(kUnknownRemoteBroker, told.back().second);
    EXPECT_THAT(reason, HasSubstr("no engine"));
    EXPECT_FALSE(registry->IsTaken(StreamName("s")));

    ASSERT_EQ(kRegistered, Add('a', "s"));
    Subscribe("1");
    AnswerWith(Published(7));
    EXPECT_EQ(kStreamInUse, told.back().second);
    EXPECT_THAT(reason, HasSubstr("has a publisher of this host"));
}

TEST_F(RemoteStreamsTest, BrokerThatNamesItselfUsesItsOwnStream) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    TakeEvents();
    Subscribe("1");
    StreamDescription own;
    own.broker = "id of here";
    AnswerWith(own);
    EXPECT_EQ(kRegistered, told.back().second);
    EXPECT_TRUE(was_local);
    EXPECT_EQ(0, running);
    EXPECT_EQ(1U, SubscribersOf("s"));
    Remove('a', "s");
    Subscribe("2");
    AnswerWith(own);
    EXPECT_EQ(kRegistered, told.back().second) << "also without a publisher";
    EXPECT_EQ(0, running);
}

TEST_F(RemoteStreamsTest, SubscribersSeeTheLinkGoAndComeAndKeepTheirSegment) {
    Import();
    const std::uint64_t epoch = EpochOf("s");
    TakeEvents();

    Link(false);
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG)));
    EXPECT_THAT(remote->ConnectedBrokers(), IsEmpty());
    AnswerWith({}, {kUnknownRemoteBroker, "no broker answers"});
    EXPECT_THAT(questions, IsEmpty());
    PassSeconds(1);
    ASSERT_EQ(1U, questions.size()) << "it is asked for again";
    AnswerWith(Published(7));
    EXPECT_THAT(TakeEvents(), IsEmpty()) << "its samples have no way yet";
    Link(true);
    AnswerWith(Published(7));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_REG)));
    EXPECT_EQ(epoch, EpochOf("s"));
    EXPECT_EQ(1, running);
}

TEST_F(RemoteStreamsTest, ANewSegmentThereIsANewOneHere) {
    Import();
    last->counters.samples = 10;
    last->counters.lost_in_transit = 3;
    const std::uint64_t epoch = EpochOf("s");
    const std::uint64_t first_run = last_run;
    TakeEvents();
    remote->Outdated("s", last_run);
    AnswerWith(Published(8, 128));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_REG)));
    EXPECT_LT(epoch, EpochOf("s"));
    EXPECT_EQ(1, running);
    EXPECT_EQ(3U, remote->Imported("s").value().lost_in_transit) << "counts go on";
    remote->Linked("s", first_run, false);
    EXPECT_THAT(TakeEvents(), IsEmpty()) << "what the old one says late does not count";

    PassSeconds(1);
    StreamDescription gone;
    gone.broker = "id of there";
    AnswerWith(gone);
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG)));
    PassSeconds(1);
    AnswerWith(Published(9, 32U << 20));
    EXPECT_THAT(TakeEvents(), IsEmpty()) << "too large for this host";
    EXPECT_THAT(log, HasSubstr("bytes of shared memory requested"));
    PassSeconds(1);
    AnswerWith(Published(10));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_REG)));
}

TEST_F(RemoteStreamsTest, MissingLinkAndMissedDeadlinesAreReported) {
    Import(2);
    last->counters.samples = 1;
    for (int i = 0; i < 3; ++i) {
        PassSeconds(1);
        AnswerWith(Published(7));
    }
    EXPECT_EQ(1U, remote->States().front().deadlines_missed);

    Link(false);
    Link(true);
    while (!questions.empty()) {
        AnswerWith(Published(8));
    }
    TakeEvents();
    for (int i = 0; i < 6; ++i) {
        PassSeconds(1);
        AnswerWith(Published(8));
    }
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG)));
    EXPECT_THAT(log, HasSubstr("do not arrive"));
}

TEST_F(RemoteStreamsTest, ExportRunsWhileThereAreAPublisherAndRequests) {
    EXPECT_FALSE(remote->Describe("s", "wkp.rr://there:5000").published);
    ASSERT_EQ(kRegistered, Add('a', "s"));
    EXPECT_TRUE(remote->Describe("s", "").published);
    EXPECT_EQ(0, running) << "a probe starts no export";
    const StreamDescription first = remote->Describe("s", kThere);
    EXPECT_EQ(1, running);
    EXPECT_EQ("id of here", first.broker);
    EXPECT_EQ(EpochOf("s"), first.epoch);
    EXPECT_EQ(250, first.latency_ms);
    EXPECT_EQ(10, first.deadline_s);
    EXPECT_EQ("kvo/here_3a5000/s", first.topic);
    remote->Describe("s", "wkp.rr://third:5000");
    EXPECT_EQ(1, running);
    EXPECT_THAT(remote->ConnectedBrokers(), ElementsAre(kThere, "wkp.rr://third:5000"));

    Remove('a', "s");
    remote->PublisherChanged("s");
    EXPECT_EQ(0, running);
    ASSERT_EQ(kRegistered, Add('b', "s"));
    remote->PublisherChanged("s");
    EXPECT_EQ(1, running) << "for those that have asked before";
    for (int i = 0; i < 9; ++i) {
        PassSeconds(1);
        remote->Describe("s", kThere);
    }
    PassSeconds(2);
    EXPECT_THAT(remote->ConnectedBrokers(), ElementsAre(kThere));
    PassSeconds(11);
    EXPECT_EQ(0, running);
    EXPECT_THAT(remote->ConnectedBrokers(), IsEmpty());
}

TEST_F(RemoteStreamsTest, PermanentExportNeedsNoRequests) {
    always_exported = "s";
    ASSERT_EQ(kRegistered, Add('a', "s"));
    remote->PublisherChanged("s");
    EXPECT_EQ(1, running);
    PassSeconds(12);
    EXPECT_EQ(1, running);
    EXPECT_THAT(remote->ConnectedBrokers(), IsEmpty());
    Remove('a', "s");
    remote->PublisherChanged("s");
    remote->Tick();
    EXPECT_EQ(0, running);
    EXPECT_THAT(remote->States(), IsEmpty());
}

}  // namespace
}  // namespace kvo::brokerd

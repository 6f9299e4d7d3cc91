// Two brokers of this process with an engine that keeps to its memory: what is between the wire
// and the engine, as clients see it.
#include "captured_log.h"
#include "gorm/cor/cor.h"
#include "kvo/KvoDataPublisher.h"
#include "kvo/KvoDataSubscriber.h"
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/broker/broker_result.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/broker/remote_stream_state.h"
#include "kvo/brokerd/broker.h"
#include "kvo/memory/memory_accessor.h"
#include "scripted_broker.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvo::brokerd {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// The network between the brokers. Threads: any.
class Network {
public:
    struct Parcel {
        SampleView sample;
        std::string metadata;
        std::string payload;
    };
    struct Inbox {
        std::deque<Parcel> parcels;
        bool woken = false;
    };
    struct Topic {
        int writers = 0;
        std::deque<Parcel> history;
        std::map<const void*, Inbox> inboxes;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, Topic> topics;
    bool cut = false;
};

class MemoryWriter final : public RemoteWriter {
public:
    MemoryWriter(Network& network, RemoteTopic topic) : network_(network), topic_(topic) {
        const std::lock_guard lock(network_.mutex);
        ++network_.topics[topic_.name].writers;
        network_.changed.notify_all();
    }
    ~MemoryWriter() override {
        const std::lock_guard lock(network_.mutex);
        --network_.topics[topic_.name].writers;
        network_.topics[topic_.name].history.clear();
        network_.changed.notify_all();
    }
    bool Write(const SampleView& sample) override {
        const auto text = [](const unsigned char* bytes, std::uint32_t count) {
            return std::string(bytes, bytes + count);
        };
        const std::lock_guard lock(network_.mutex);
        Network::Topic& topic = network_.topics[topic_.name];
        topic.history.push_back({sample, text(sample.metadata, sample.metadata_bytes),
                                 text(sample.payload, sample.payload_bytes)});
        while (topic.history.size() > topic_.history) {
            topic.history.pop_front();
        }
        for (auto& [reader, inbox] : topic.inboxes) {
            if (!network_.cut) {
                inbox.parcels.push_back(topic.history.back());
            }
        }
        network_.changed.notify_all();
        return true;
    }

private:
    Network& network_;
    const RemoteTopic topic_;
};

class MemoryReader final : public RemoteReader {
public:
    MemoryReader(Network& network, const RemoteTopic& topic)
        : network_(network), topic_(topic.name) {
        const std::lock_guard lock(network_.mutex);
        Network::Topic& there = network_.topics[topic_];
        there.inboxes[this].parcels = there.history;
    }
    ~MemoryReader() override {
        const std::lock_guard lock(network_.mutex);
        network_.topics[topic_].inboxes.erase(this);
    }
    void Take(std::chrono::milliseconds at_most, const Receiver& receiver) override {
        std::deque<Network::Parcel> parcels;
        {
            std::unique_lock lock(network_.mutex);
            Network::Inbox& inbox = network_.topics[topic_].inboxes[this];
            const bool linked = HasWriter();
            network_.changed.wait_for(lock, at_most, [&] {
                return inbox.woken || !inbox.parcels.empty() || HasWriter() != linked;
            });
            inbox.woken = false;
            parcels.swap(inbox.parcels);
        }
        for (const Network::Parcel& parcel : parcels) {
            SampleView sample = parcel.sample;
            sample.metadata = reinterpret_cast<const unsigned char*>(parcel.metadata.data());
            sample.payload = reinterpret_cast<const unsigned char*>(parcel.payload.data());
            receiver(sample);
        }
    }
    void Wake() override {
        const std::lock_guard lock(network_.mutex);
        network_.topics[topic_].inboxes[this].woken = true;
        network_.changed.notify_all();
    }
    bool has_writer() const override {
        const std::lock_guard lock(network_.mutex);
        return HasWriter();
    }

private:
    bool HasWriter() const { return !network_.cut && network_.topics[topic_].writers > 0; }

    Network& network_;
    const std::string topic_;
};

class MemoryEngine final : public FederationEngine {
public:
    explicit MemoryEngine(Network& network) : network_(network) {}
    std::unique_ptr<RemoteWriter> MakeWriter(const RemoteTopic& topic) override {
        return std::make_unique<MemoryWriter>(network_, topic);
    }
    std::unique_ptr<RemoteReader> MakeReader(const RemoteTopic& topic,
                                             const std::string& /*own*/) override {
        return std::make_unique<MemoryReader>(network_, topic);
    }

private:
    Network& network_;
};

class FederationTest : public ::testing::TestWithParam<bool> {
protected:
    FederationTest() {
        there = Start("there");
        here = Start("here");
    }

    std::unique_ptr<Broker> Start(const std::string& name, bool with_engine = true) {
        BrokerOptions options;
        options.port = 0;
        options.directory = (place.path() / name).string();
        options.name = name + ":5000";
        options.local_topics = GetParam();
        options.runtime_directory = (place.path() / "run").string();
        if (with_engine) {
            options.make_federation_engine = [this](const FederationOptions&) {
                return std::make_unique<MemoryEngine>(network);
            };
        } else {
            options.federation.module = "libno-such-module.so";
        }
        return std::make_unique<Broker>(options, &log);
    }
    static std::unique_ptr<DataBrokerRegistrationSync> ClientOf(const std::string& uri) {
        const network::uri complete(uri + "/broker/Broker1");
        return gorm::cor::loadCorForUri(complete.string(), {})
            .getClient<DataBrokerRegistrationSync>(
                complete,
                {std::make_shared<gorm::cor::rr::qos::ReplyTime>(std::chrono::seconds(10))}, {});
    }
    std::unique_ptr<KvoDataPublisher> Publish(const std::string& broker, int samples = 16) {
        auto publisher = KvoDataTransferFactory::CreatePublisher(&log);
        publisher->SetBufferSize(64, samples);
        publisher->set_topic_id(7);
        EXPECT_EQ(1, publisher->RegisterPublisher(broker, "s", true));
        return publisher;
    }
    std::unique_ptr<KvoDataSubscriber> Subscribe() {
        auto subscriber = KvoDataTransferFactory::CreateSubscriber(&log);
        EXPECT_EQ(1, subscriber->RegisterSubscriber(here->uri(), "s", there->uri(), 1));
        return subscriber;
    }
    static void Write(KvoDataPublisher& publisher, int number) {
        const std::string payload = "payload " + std::to_string(number);
        publisher.WriteData(number, {payload.begin(), payload.end()}, {'m', 'e', 't', 'a'});
        publisher.PublishData();
    }
    static std::string PayloadOf(const DataSample& sample) {
        return {sample.payload(), sample.payload() + sample.payload_size()};
    }
    template <class Condition>
    static bool Becomes(Condition condition) {
        const auto end = std::chrono::steady_clock::now() + test::kDeadline;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }
    /// The next sample; null: none came in time.
    static DataSample* Await(KvoDataSubscriber& subscriber) {
        DataSample* sample = nullptr;
        Becomes([&] { return (sample = subscriber.ReadData()) != nullptr; });
        return sample;
    }

    const test::TempDirectory place;
    Network network;
    test::CapturedLog log;
    std::unique_ptr<Broker> there;
    std::unique_ptr<Broker> here;
};

// With local topics and without: both ways in which an export hears of new data.
INSTANTIATE_TEST_SUITE_P(Topics, FederationTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Memory" : "Wire"; });

TEST_P(FederationTest, SamplesArriveOnceInOrderAsTheyWereWritten) {
    const auto publisher = Publish(there->uri());
    Write(*publisher, 1);
    Write(*publisher, 2);
    const auto subscriber = Subscribe();
    for (int number = 1; number <= 200; ++number) {
        if (number > 2) {
            Write(*publisher, number);
        }
        const DataSample* const sample = Await(*subscriber);
        ASSERT_NE(nullptr, sample) << number;
        EXPECT_EQ("payload " + std::to_string(number), PayloadOf(*sample));
        EXPECT_EQ("meta",
                  std::string(sample->metadata(), sample->metadata() + sample->metadata_size()));
        EXPECT_EQ(number, sample->sample_tag());
        EXPECT_EQ(7, sample->topic_id());
        EXPECT_EQ(static_cast<std::uint64_t>(number), sample->sequence_number());
        EXPECT_EQ(ChecksumState::kVerified, sample->checksum_state());
    }
    EXPECT_EQ(nullptr, subscriber->ReadData());
    const auto client = ClientOf(here->uri());
    EXPECT_EQ("2", client->GetStreamStatistics("s")[5]);
    EXPECT_FALSE(client->HasLocalPublisher("s"));
    EXPECT_FALSE(client->IsStreamIdFree("s"));
    EXPECT_THAT(client->ListConnectedBrokers(), ElementsAre(there->uri()));
    EXPECT_THAT(ClientOf(there->uri())->ListConnectedBrokers(), ElementsAre("wkp.rr://here:5000"));
    EXPECT_THAT(
        client->ListRemoteStreams(),
        ElementsAre(AllOf(
            Field(&RemoteStreamState::import, true),
            Field(&RemoteStreamState::broker, there->uri()), Field(&RemoteStreamState::stream, "s"),
            Field(&RemoteStreamState::live, true), Field(&RemoteStreamState::samples, 200))));

    subscriber->UnregisterSubscriber();
    EXPECT_TRUE(Becomes([&] { return client->IsStreamIdFree("s"); }));
    EXPECT_THAT(client->ListConnectedBrokers(), IsEmpty());
}

TEST_P(FederationTest, WhatIsMissingIsCountedAndANewPublisherIsFollowed) {
    auto publisher = Publish(there->uri(), 4);
    Write(*publisher, 1);
    const auto subscriber = Subscribe();
    ASSERT_NE(nullptr, Await(*subscriber));
    const auto set_cut = [this](bool cut) {
        const std::lock_guard lock(network.mutex);
        network.cut = cut;
        network.changed.notify_all();
    };
    const auto client = ClientOf(here->uri());
    ASSERT_TRUE(Becomes([&] { return client->GetStreamStatistics("s")[5] == "2"; }));
    set_cut(true);
    ASSERT_TRUE(log.WaitFor({2, "KvoDataSubscriber: PUB_UNREG notification received"}));
    for (int number = 2; number <= 6; ++number) {
        Write(*publisher, number);
    }
    const auto exporter = ClientOf(there->uri());
    ASSERT_TRUE(Becomes([&] { return exporter->GetStreamStatistics("s").at(7) == "exported=6"; }));
    set_cut(false);
    Write(*publisher, 7);
    const DataSample* const sample = Await(*subscriber);
    ASSERT_NE(nullptr, sample);
    EXPECT_EQ(7U, sample->sequence_number());
    ASSERT_TRUE(
        Becomes([&] { return client->GetStreamStatistics("s")[8] == "lost_in_transit=5"; }));
    ASSERT_TRUE(Becomes([&] { return client->GetStreamStatistics("s")[5] == "2"; }));

    publisher.reset();
    ASSERT_TRUE(Becomes([&] { return client->GetStreamStatistics("s")[5] == "0"; }));
    publisher = Publish(there->uri(), 4);
    Write(*publisher, 1);
    const DataSample* const first = Await(*subscriber);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(1U, first->sequence_number());
}

TEST_P(FederationTest, RefusalsNameWhatIsInTheWay) {
    const auto client = ClientOf(here->uri());
    const auto expect = [&](const std::string& remote, std::int32_t code, const char* why) {
        EXPECT_FALSE(client->HasRemotePublisher(remote, "s"));
        EXPECT_THAT(client->GetRefusalReason("s"), HasSubstr(why));
        EXPECT_EQ(code, client->AddSubscriber("uuid", "s", remote, 0, 0)) << remote;
        EXPECT_THAT(client->GetRefusalReason("s"), HasSubstr(why));
    };
    expect("nonsense", kUnknownRemoteBroker, "names no broker");
    expect("wkp.rr://host:0", kUnknownRemoteBroker, "no port from 1");
    expect("wkp.rr://127.0.0.1:1", kUnknownRemoteBroker, "no broker answers");
    expect(there->uri(), kNoRemoteStream, "has no publisher of stream");
    test::ScriptedBroker foreign;
    StreamDescription without_epoch;
    without_epoch.broker = "id";
    without_epoch.published = true;
    foreign.Always("DescribeStream", without_epoch);
    expect(foreign.uri(), kNoRemoteStream, "names no epoch");
    foreign.Always("DescribeStream", std::vector<std::string>{"id", "1"});
    expect(foreign.uri(), kNoRemoteStream, "of the wrong type");
    const auto publisher = Publish(there->uri());
    EXPECT_TRUE(client->HasRemotePublisher(there->uri(), "s"));
    EXPECT_TRUE(client->HasRemotePublisher(
        "wkp.rr://localhost:" + std::to_string(there->port()) + "/broker/Broker1", "s"));
    here.reset();
    here = Start("here", false);
    const auto without = ClientOf(here->uri());
    EXPECT_EQ(kUnknownRemoteBroker, without->AddSubscriber("uuid", "s", there->uri(), 0, 0));
    EXPECT_THAT(without->GetRefusalReason("s"), HasSubstr("libno-such-module.so"));
    EXPECT_TRUE(without->IsStreamIdFree("s"));
    EXPECT_EQ(kRegistered, ClientOf(there->uri())->AddSubscriber("own", "s", there->uri(), 0, 0))
        << "the stream of the broker itself";
    EXPECT_THAT(ClientOf(there->uri())->ListRemoteStreams(),
                Not(Contains(Field(&RemoteStreamState::import, true))));
}

}  // namespace
}  // namespace kvo::brokerd

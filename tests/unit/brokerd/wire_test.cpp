#include "captured_log.h"
#include "gorm/cor/cor.h"
#include "kvo/broker/broker_result.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/broker/notification_sample.h"
#include "kvo/brokerd/broker.h"
#include "kvo/memory/memory_accessor.h"
#include "local_topics.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kvo::brokerd {
namespace {

using gorm::cor::rr::RemoteError;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// The notifications of one stream. Threads: any.
class Ear {
public:
    Ear(std::int32_t port, const std::string& stream) {
        const std::string uri = "wkp.ps://127.0.0.1:" + std::to_string(port) + "/" + stream;
        topic_ = gorm::cor::loadCorForUri(uri, {})
                     .getCor(network::uri(uri))
                     .CreateSubscriber<NotificationSample>(network::uri(uri), {});
        registration_ = topic_->AddDataListener(
            [this](auto&, const gorm::cor::ps::DataEvent<NotificationSample>& event) {
                const std::lock_guard lock(mutex_);
                heard_.push_back(event.getData()->get_notification_type());
                changed_.notify_all();
            },
            {nullptr,
             gorm::cor::ps::FilterMode::kAll,
             {gorm::cor::ps::InstanceEvent::kCreated, gorm::cor::ps::InstanceEvent::kUpdated}});
    }

    /// What has come up to the first of the wanted kind; all there is when it does not come.
    std::vector<NotificationType> Until(NotificationType wanted) {
        std::unique_lock lock(mutex_);
        auto end = heard_.end();
        changed_.wait_for(lock, test::kDeadline, [&] {
            end = std::find(heard_.begin(), heard_.end(), wanted);
            return end != heard_.end();
        });
        if (end != heard_.end()) {
            ++end;
        }
        const std::vector<NotificationType> taken(heard_.begin(), end);
        heard_.erase(heard_.begin(), end);
        return taken;
    }

    /// What is there now and was not taken.
    std::vector<NotificationType> Rest() {
        const std::lock_guard lock(mutex_);
        return std::exchange(heard_, {});
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<NotificationType> heard_;  // under the mutex
    std::unique_ptr<gorm::cor::ps::Subscriber<NotificationSample>> topic_;
    gorm::cor::rr::ListenerRegistration registration_;
};

class WireTest : public ::testing::Test {
protected:
    WireTest() {
        options.port = 0;
        options.directory = (place.path() / "streams").string();
        options.removal_grace = std::chrono::milliseconds(300);
        options.local_topics = test::LocalTopics(options.local_topics);
        Start();
    }
    void Start() {
        broker.emplace(options, &log);
        options.port = broker->port();
        client.reset();
        const std::string uri = broker->uri() + "/broker/Broker1";
        client = gorm::cor::loadCorForUri(uri, {}).getClient<DataBrokerRegistrationSync>(
            network::uri(uri), {}, {});
        client->Connect().get();
    }
    std::int32_t Publish(const std::string& stream, const std::string& key = "") {
        return client->AddPublisher(stream, 250, 10, 64, 4, false, key);
    }
    std::unique_ptr<KvoMemoryAccessor> Open(const std::string& stream) {
        return std::make_unique<KvoMemoryAccessor>(client->GetShmFilePath(stream), stream, &log, 0,
                                                   1);
    }
    std::unique_ptr<KvoMemoryAccessor> OpenToWrite(const std::string& stream) {
        auto accessor = Open(stream);
        accessor->SetSizeConstraints(64, static_cast<int>(kMaxMetadataBytes));
        return accessor;
    }
    static void Write(KvoMemoryAccessor& accessor) {
        accessor.WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 1);
    }
    template <class Call>
    static std::string ErrorOf(Call&& call) {
        try {
            call();
        } catch (const RemoteError& error) {
            return error.what();
        }
        return {};
    }

    const test::TempDirectory place;
    test::CapturedLog log;
    BrokerOptions options;
    std::optional<Broker> broker;
    std::unique_ptr<DataBrokerRegistrationSync> client;
};

TEST_F(WireTest, NotificationsComeInTheOrderOfEvents) {
    ASSERT_EQ(kRegistered, Publish("s"));
    auto writer = OpenToWrite("s");
    Write(*writer);
    // Whoever begins to listen is told that there is something; so the subscription stands.
    ASSERT_EQ(kRegistered, client->AddSubscriber("uuid", "s", "", 250, 10));
    Ear ear(client->GetNotificationPort("s"), "s");
    EXPECT_THAT(ear.Until(NEW_DATA), ElementsAre(NEW_DATA));
    client->NotifyNewData("s");
    EXPECT_THAT(ear.Until(NEW_DATA), ElementsAre(NEW_DATA));

    // A successor within the grace takes the removal's place.
    EXPECT_EQ(1, client->RemovePublisher("s"));
    ASSERT_EQ(kRegistered, Publish("s"));
    EXPECT_THAT(ear.Until(PUB_REG), ElementsAre(PUB_UNREG, PUB_REG));
    EXPECT_EQ(1, client->RemovePublisher("s"));
    EXPECT_THAT(ear.Until(SHM_DEL), ElementsAre(PUB_UNREG, SHM_DEL));
    EXPECT_THAT(ear.Rest(), IsEmpty());
    EXPECT_EQ(-1, client->RemovePublisher("s"));
}

TEST_F(WireTest, ARegistrationIsWhatItsCallerAndNobodyElseHas) {
    EXPECT_THAT(ErrorOf([&] { client->SendHeartbeat("no/such/id"); }), HasSubstr("no/such/id"));
    EXPECT_THAT(ErrorOf([&] { client->GetPublisherKey("s"); }), HasSubstr("\"s\""));
    EXPECT_THAT(ErrorOf([&] { client->GetNotificationPort("two words"); }), HasSubstr("two words"));
    EXPECT_THAT(ErrorOf([&] { client->GetStreamStatistics("s"); }), HasSubstr("\"s\""));
    ASSERT_EQ(kRegistered, Publish("s"));
    EXPECT_EQ(kRegistered, client->AddSubscriber("uuid", "s", "", 250, 10));
    EXPECT_EQ(kUnknownRemoteBroker,
              client->AddSubscriber("other", "s", "wkp.rr://127.0.0.1:1", 250, 10));
    EXPECT_EQ("", ErrorOf([&] {
                  client->SendHeartbeat("s");
                  client->SendHeartbeat("uuid");
              }));
    EXPECT_EQ(kStreamInUse, Publish("s"));
    EXPECT_THAT(client->GetRefusalReason("s"), HasSubstr("has a publisher"));
    EXPECT_THAT(client->GetRefusalReason("other"), IsEmpty());
    EXPECT_FALSE(client->IsStreamIdFree("s"));
    EXPECT_THAT(client->ListRegisteredStreams(), ElementsAre("s"));
    EXPECT_EQ("1", client->GetStreamStatistics("s").at(1));
    EXPECT_EQ(1, client->RemoveSubscriber("s", "uuid"));
    EXPECT_EQ("0", client->GetStreamStatistics("s").at(1));
    EXPECT_EQ(options.local_topics ? 2U : 0U, client->GetCapabilities().size());
    EXPECT_THAT(client->ListConnectedBrokers(), IsEmpty());
    const std::string key = client->GetPublisherKey("s");
    EXPECT_EQ(32U, key.size());
    for (const test::LogLine& line : log.lines()) {
        EXPECT_EQ(std::string::npos, line.text.find(key));
    }
}

TEST_F(WireTest, RulesHoldForWhatIsAskedFromThenOn) {
    ASSERT_EQ(kRegistered, Publish("before"));
    const std::string me = "user:" + std::to_string(::geteuid());
    options.access_rules = {"allow publish mine/* to " + me, "deny subscribe secret to local",
                            "allow subscribe * to anyone"};
    broker->Reconfigure(options);
    EXPECT_EQ(kRegistered, Publish("mine/1"));
    EXPECT_EQ(kNoRight, Publish("yours"));
    const std::string reason = client->GetRefusalReason("yours");
    EXPECT_THAT(reason, AllOf(HasSubstr("(" + std::to_string(::geteuid()) + ")"),
                              HasSubstr("no right to publish \"yours\"")));
    EXPECT_EQ(1U, log.Count("refused (-14): " + reason));
    EXPECT_EQ(kNoRight, client->AddSubscriber("uuid", "secret", "", 250, 10));
    EXPECT_EQ(kRegistered, client->AddSubscriber("uuid", "before", "", 250, 10));
    EXPECT_NE("", client->GetShmFilePath("yours"));
    for (const auto& error : {ErrorOf([&] { client->GetShmFilePath("secret"); }),
                              ErrorOf([&] { client->GetNotificationPort("secret"); }),
                              ErrorOf([&] { client->GetStreamStatistics("secret"); })}) {
        EXPECT_THAT(error, HasSubstr("no right to subscribe to \"secret\""));
    }
    EXPECT_EQ(kIllFormedName, Publish("two words"));
    EXPECT_EQ(1, client->RemovePublisher("before"));

    options.access_rules = {"allow everything"};
    EXPECT_THROW(broker->Reconfigure(options), std::runtime_error);
    EXPECT_EQ(kNoRight, Publish("yours"));
    options.access_rules.clear();
    broker->Reconfigure(options);
    EXPECT_EQ(kRegistered, Publish("yours"));
    EXPECT_EQ("", client->GetRefusalReason("yours"));
}

TEST_F(WireTest, ASuccessorOfTheBrokerAdoptsWhatIsBeingWritten) {
    ASSERT_EQ(kRegistered, Publish("living"));
    ASSERT_EQ(kRegistered, Publish("left"));
    const std::string key = client->GetPublisherKey("living");
    const std::string path = client->GetShmFilePath("living");
    auto writer = OpenToWrite("living");
    Write(*writer);
    const std::uint64_t epoch = StreamFile::Open(path)->epoch();

    broker.reset();
    Start();
    EXPECT_EQ(path, client->GetShmFilePath("living"));
    EXPECT_THAT(client->ListRegisteredStreams(), IsEmpty());
    EXPECT_TRUE(client->IsStreamIdFree("living"));
    EXPECT_EQ(kShmFileExists, Publish("living"));
    Ear ear(client->GetNotificationPort("living"), "living");
    EXPECT_THAT(ear.Until(NEW_DATA), ElementsAre(NEW_DATA));
    ASSERT_EQ(kRegistered, Publish("living", key));
    EXPECT_THAT(ear.Until(NEW_DATA), ElementsAre(PUB_REG, NEW_DATA));
    Write(*writer);
    EXPECT_EQ(epoch, StreamFile::Open(path)->epoch());
    EXPECT_EQ(2U, StreamFile::Open(path)->writer_state().newest_sequence);
    EXPECT_EQ("2", client->GetStreamStatistics("living").at(2));

    writer.reset();
    client.reset();
    broker.reset();
    EXPECT_THAT(place.Content(), IsEmpty());
}

}  // namespace
}  // namespace kvo::brokerd

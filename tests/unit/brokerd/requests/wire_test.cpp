#include "captured_log.h"
#include "gorm/cor/cor.h"
#include "kvo/broker/broker_result.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/brokerd/broker.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

namespace kvo::brokerd {
namespace {

using gorm::cor::rr::RemoteError;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class WireTest : public ::testing::Test {
protected:
    WireTest() {
        options.port = 0;
        options.directory = (place.path() / "streams").string();
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
    std::int32_t Publish(const std::string& stream) {
        return client->AddPublisher(stream, 250, 10, 64, 4, false, "");
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
    EXPECT_TRUE(client->HasLocalPublisher("s"));
    EXPECT_GT(client->GetHeartbeatTimeout(), client->GetHeartbeatPeriod());
    const auto statistics = client->GetStreamStatistics("s");
    ASSERT_THAT(statistics, SizeIs(7));
    EXPECT_EQ("1", statistics[1]);
    EXPECT_EQ(client->GetShmFilePath("s"), statistics[6]);
    EXPECT_EQ(1, client->RemoveSubscriber("s", "uuid"));
    EXPECT_EQ("0", client->GetStreamStatistics("s").at(1));
    EXPECT_THAT(client->GetCapabilities(), SizeIs(2));
    EXPECT_THAT(client->ListConnectedBrokers(), IsEmpty());
    const std::string key = client->GetPublisherKey("s");
    EXPECT_EQ(32U, key.size());
    for (const test::LogLine& line : log.lines()) {
        EXPECT_EQ(std::string::npos, line.text.find(key));
    }
    broker.reset();
    options.local_topics = false;
    Start();
    EXPECT_THAT(client->GetCapabilities(), IsEmpty());
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
                              HasSubstr("no right to publish \"yours\": no rule")));
    EXPECT_EQ(1U, log.Count("refused (-14): " + reason));
    EXPECT_EQ(kNoRight, client->AddSubscriber("uuid", "secret", "", 250, 10));
    EXPECT_THAT(client->GetRefusalReason("secret"),
                HasSubstr("the rule \"deny subscribe secret to local\""));
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

}  // namespace
}  // namespace kvo::brokerd

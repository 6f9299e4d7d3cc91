#include "http_endpoint.h"
#include "kvo/brokerd/broker.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <httplib.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace kvo::brokerd {
namespace {

using ::testing::HasSubstr;

class HttpTest : public ::testing::Test {
protected:
    HttpTest() {
        BrokerOptions options;
        options.port = 0;
        options.directory = (place_.path() / "streams").string();
        broker_ = std::make_unique<Broker>(options, nullptr);
        http_ = std::make_unique<HttpEndpoint>("127.0.0.1", 0, *broker_);
    }
    std::string Get(const std::string& path, int status = 200) const {
        httplib::Client client("127.0.0.1", http_->port());
        const auto response = client.Get(path.c_str());
        EXPECT_TRUE(response) << path;
        EXPECT_EQ(response ? response->status : 0, status) << path;
        return response ? response->body : std::string();
    }

    const test::TempDirectory place_;
    std::unique_ptr<Broker> broker_;
    std::unique_ptr<HttpEndpoint> http_;
};

TEST_F(HttpTest, HealthFollowsTheBrokerAndListsAreJson) {
    EXPECT_EQ(Get("/healthz"), "ok\n");
    EXPECT_EQ(Get("/readyz"), "ready\n");
    EXPECT_THAT(Get("/metrics"),
                HasSubstr("# TYPE kvo_broker_streams gauge\nkvo_broker_streams 0"));
    for (const std::string list : {"streams", "clients", "events", "brokers"}) {
        EXPECT_TRUE(nlohmann::json::parse(Get("/api/v1/" + list)).at(list).is_array()) << list;
    }
    EXPECT_THAT(Get("/nothing", 404), HasSubstr("404"));
    broker_->Drain();
    EXPECT_EQ(Get("/readyz", 503), "draining\n");
    EXPECT_EQ(Get("/healthz"), "ok\n");
}

}  // namespace
}  // namespace kvo::brokerd

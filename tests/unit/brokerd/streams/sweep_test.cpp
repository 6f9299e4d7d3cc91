#include "broker_fixture.h"
#include "kvo/broker/broker_result.h"

#include <gmock/gmock.h>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class SweepTest : public BrokerParts {};

TEST_F(SweepTest, SilenceEndsARegistrationButNotTheBrokersOwnPauses) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    ASSERT_EQ(kRegistered, Subscribe('b', "uuid", "s"));
    now += std::chrono::hours(1);  // the broker was stopped
    time.Tick();
    registry->sweep().Run();
    EXPECT_TRUE(IsPublished("s"));
    Pass(std::chrono::seconds(8));
    registry->OnHeartbeat(IdentityOf('a'), "s");
    EXPECT_THROW(registry->OnHeartbeat(IdentityOf('b'), "s"), std::runtime_error);
    EXPECT_THROW(registry->OnHeartbeat(IdentityOf('a'), "uuid"), std::runtime_error);
    EXPECT_THROW(registry->OnHeartbeat(IdentityOf('a'), "nobody"), std::runtime_error);
    Pass(std::chrono::seconds(8));
    EXPECT_TRUE(IsPublished("s"));
    EXPECT_EQ(0U, SubscribersOf("s"));
    Pass(std::chrono::seconds(3));
    EXPECT_FALSE(IsPublished("s"));
}

// 'a' stands in a debugger: its process lives, but its connections do not answer.
TEST_F(SweepTest, AStalledClientIsShownAndKept) {
    processes.tags[IdentityOf('a')] = {1, 1};
    processes.tags[IdentityOf('b')] = {2, 2};
    ASSERT_EQ(kRegistered, Add('a', "s"));
    ASSERT_EQ(kRegistered, Subscribe('b', "uuid", "s"));
    const auto stalled = [this] {
        std::vector<std::string> ids;
        for (const ClientState& client : registry->Clients()) {
            if (client.stalled) {
                ids.push_back(client.id);
            }
        }
        return ids;
    };
    processes.disconnected.insert(IdentityOf('a'));
    processes.disconnected.insert(IdentityOf('b'));
    Pass(std::chrono::minutes(5));
    EXPECT_TRUE(IsPublished("s"));
    EXPECT_THAT(stalled(), ElementsAre("s", "uuid"));
    EXPECT_THAT(log, HasSubstr("is stalled"));
    processes.disconnected.clear();
    registry->OnHeartbeat(IdentityOf('a'), "s");
    registry->sweep().Run();  // 'b' answers, and has ended its heartbeats
    EXPECT_THAT(stalled(), IsEmpty());
    EXPECT_EQ(0U, SubscribersOf("s"));
    EXPECT_TRUE(IsPublished("s"));
    processes.disconnected.insert(IdentityOf('a'));
    processes.dead.insert(1);
    registry->sweep().Run();
    EXPECT_FALSE(IsPublished("s"));
}

}  // namespace
}  // namespace kvo::brokerd

#include "broker_scene.h"

#include <string>

namespace kvo::bench {

void BearRegistrations(const Options& options) {
    const std::uint64_t rounds = options.quick ? 2000 : 100'000;
    constexpr std::uint64_t kWarmUp = 500;
    Scene scene(options, {"--log-level", "error", "--request-rate", "0"});
    std::uint64_t round = 0;
    Progress progress("registrations", kWarmUp + rounds);
    const auto run = [&](std::uint64_t end) {
        SimulatedClient client(scene.context(), scene.endpoint(), SimulatedClient::NewRoutingId());
        for (; round < end; ++round) {
            const std::string uuid = "subscriber-" + std::to_string(round);
            const bool right =
                client.Call<int>("AddPublisher", "turn", 250, 10, 64, 4, false, "") == 1 &&
                client.Call<int>("AddSubscriber", uuid, "turn", "", 250, 10) == 1 &&
                client.Call<int>("RemoveSubscriber", "turn", uuid) == 1 &&
                client.Call<int>("RemovePublisher", "turn") == 1;
            if (!right) {
                Fail("a registration or its end was refused");
            }
            scene.client().Beat();
            progress.Tell(round);
        }
    };
    run(kWarmUp);
    const Footprint before = scene.Settle();
    run(kWarmUp + rounds);
    scene.CheckGrowth(before, scene.Settle());
    scene.End();
}

}  // namespace kvo::bench

#include "broker_scene.h"

#include <algorithm>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace kvo::bench {
namespace {

std::uint64_t Flood(SimulatedClient& client, const std::stop_token& stop) {
    std::uint64_t requests = 0;
    for (; !stop.stop_requested(); ++requests) {
        client.Ask("GetStreamStatistics", "well/behaved");
        while (client.Take()) {
        }
    }
    return requests;
}

}  // namespace

void BearSilenceAndFlood(const Options& options) {
    const std::size_t silent = options.quick ? 200 : 1000;
    const std::chrono::seconds duration(options.quick ? 3 : 10);
    const double most_ms = options.quick ? 500 : 50;
    AllowDescriptors(silent + 256);
    Scene scene(options, {"--log-level", "error"});
    std::vector<double> times_ms;
    std::uint64_t connected = 0;
    std::uint64_t flood = 0;
    {
        const auto connect = [&] {
            ++connected;
            return std::make_unique<TcpConnection>(scene.port());
        };
        std::vector<std::unique_ptr<TcpConnection>> connections(silent);
        std::generate(connections.begin(), connections.end(), connect);
        SimulatedClient flooding(scene.context(), scene.endpoint(),
                                 SimulatedClient::NewRoutingId());
        std::stop_source stop;
        auto flooded = std::async(std::launch::async, Flood, std::ref(flooding), stop.get_token());
        struct StopAtEnd {
            std::stop_source& stop;
            ~StopAtEnd() { stop.request_stop(); }
        } stop_at_end{stop};
        Progress progress("silent connections, seconds",
                          static_cast<std::uint64_t>(duration.count()));
        const auto begin = Clock::now();
        for (auto due = begin; due < begin + duration; due += std::chrono::milliseconds(2)) {
            // One that the broker has closed makes room for the next.
            auto& connection = connections[times_ms.size() % silent];
            if (!connection->Open()) {
                connection = connect();
            }
            std::this_thread::sleep_until(due);
            const auto asked = Clock::now();
            scene.client().Beat();
            times_ms.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - asked).count());
            progress.Tell(static_cast<std::uint64_t>((asked - begin) / std::chrono::seconds(1)));
        }
        stop.request_stop();
        flood = flooded.get();
    }
    scene.Settle();
    scene.End();
    const double p99_ms = Percentile(times_ms, 0.99);
    std::cout << "  " << connected << " silent connections, " << flood << " requests of the flood; "
              << times_ms.size() << " heartbeats answered, p50 " << Percentile(times_ms, 0.5)
              << " ms, p99 " << p99_ms << " ms, max " << times_ms.back() << " ms" << std::endl;
    if (p99_ms > most_ms) {
        Fail("the p99 of a request's time is above " + std::to_string(most_ms) + " ms");
    }
}

}  // namespace kvo::bench

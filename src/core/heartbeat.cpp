#include "core/heartbeat.h"

#include "core/detached_thread.h"

#include <chrono>
#include <thread>
#include <utility>

namespace kvo {
namespace {

constexpr auto kStopPoll = std::chrono::milliseconds(10);

bool IsReady(const std::future<void>& stop, std::chrono::seconds wait) {
    return stop.wait_for(wait) == std::future_status::ready;
}

void HeartbeatThread(TransferState& state, const std::future<void>& stop,
                     std::atomic<bool>& running) {
    state.Log(1, "KvoDataTransferLib: HeartbeatThread started");
    running = true;
    while (!IsReady(stop, std::chrono::seconds(0))) {
        const int period = state.heartbeat_period;
        if (period > 0 && IsReady(stop, std::chrono::seconds(period))) {
            break;
        }
        try {
            const std::string id =
                state.heartbeat.With([](const Heartbeat& h) { return h.heartbeat_id; });
            state.broker_client.Call(&DataBrokerRegistrationSync::SendHeartbeat, id);
        } catch (const std::exception& error) {
            state.LogException(error, "KvoDataTransferLib: HeartbeatThread()");
        }
    }
    running = false;
}

}  // namespace

void StartHeartbeat(const std::shared_ptr<TransferState>& state, int period, std::string id) {
    state->heartbeat_period = period;
    state->heartbeat.With([&](Heartbeat& h) { h.heartbeat_id = std::move(id); });
    if (period <= 0) {
        state->Log(3, "KvoDataTransferLib: Heartbeat not activated!");
        return;
    }
    auto running = std::make_shared<std::atomic<bool>>(false);
    auto stop = std::make_shared<std::future<void>>(state->heartbeat.With([&](Heartbeat& h) {
        h.heartbeat_stop_promise = std::promise<void>();
        h.heartbeat_running = running;
        return h.heartbeat_stop_promise.get_future();
    }));
    if (state->closed) {
        // The object's destructor may have abandoned the heartbeat before this one existed.
        AbandonHeartbeat(*state);
    }
    StartDetached([state, stop, running] { HeartbeatThread(*state, *stop, *running); });
}

void StopHeartbeat(TransferState& state) {
    // Loaded once: a thread that starts to run after this was not stopped by this call.
    const auto running = state.heartbeat.With([](Heartbeat& h) {
        if (!*h.heartbeat_running) {
            return std::shared_ptr<std::atomic<bool>>();
        }
        h.heartbeat_stop_promise.set_value();
        return h.heartbeat_running;
    });
    while (running != nullptr && *running) {
        std::this_thread::sleep_for(kStopPoll);
    }
}

void AbandonHeartbeat(TransferState& state) {
    state.heartbeat.With([](Heartbeat& h) { h.heartbeat_stop_promise = std::promise<void>(); });
}

}  // namespace kvo

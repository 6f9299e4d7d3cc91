#pragma once

#include "captured_log.h"
#include "core/transfer_state.h"
#include "kvo/KvoDataPublisher.h"
#include "kvo/KvoDataSubscriber.h"
#include "kvo/KvoDataTransferLib.h"
#include "scripted_broker.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace kvo::test {

/// Opens an object's protected operations, which an application's own class could call.
template <class Base>
class Probe : public Base {
public:
    using Base::Base;
    using Base::GetConfigFilePath;
    using Base::InitCOR;
    using Base::StartHeartbeat;
    using Base::StopHeartbeat;
    using Base::VerifyPathInBrokerUri;

    // Polls: a change of the flag raises no event.
    bool WaitForHeartbeat(bool running) {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (heartbeat_running() != running && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return heartbeat_running() == running;
    }
    TransferState& transfer() { return *this->state; }
    void AwaitCapabilities(const ScriptedBroker& broker) {
        transfer().broker_client.Call(
            [&](DataBrokerRegistrationSync& client) { broker.AwaitCapabilities(client); });
    }
    bool heartbeat_running() {
        return this->state->heartbeat.With(
            [](Heartbeat& h) { return h.heartbeat_running->load(); });
    }
};

using TransferProbe = Probe<KvoDataTransferLib>;
using PublisherProbe = Probe<KvoDataPublisher>;

class SubscriberProbe : public Probe<KvoDataSubscriber> {
public:
    using KvoDataSubscriber::StopNotificationSubscription;
    using Probe::Probe;
};

using Lines = std::vector<LogLine>;
using Calls = std::vector<std::string>;

/// The two lines that an exception leaves are "EXCEPTION: " and a text that holds `part`, then
/// where it was caught.
inline bool LoggedException(const CapturedLog& log, const std::string& part,
                            const std::string& where) {
    const Lines lines = log.lines();
    return std::adjacent_find(lines.begin(), lines.end(),
                              [&](const LogLine& first, const LogLine& second) {
                                  return first.level == 4 && second.level == 4 &&
                                         first.text.rfind("EXCEPTION: ", 0) == 0 &&
                                         first.text.find(part) != std::string::npos &&
                                         second.text == "thrown in " + where;
                              }) != lines.end();
}

/// Notifies until the line of that type is logged. A replaced subscription reaches the broker after
/// a while, and notifications sent before are not delivered.
inline bool NotifyUntil(ScriptedBroker& broker, const std::string& stream, std::uint32_t type,
                        const CapturedLog& log, const LogLine& line) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (std::chrono::steady_clock::now() < deadline) {
        if (broker.Notify(stream, type) && log.WaitFor(line, 1, std::chrono::milliseconds(100))) {
            return true;
        }
    }
    return false;
}

}  // namespace kvo::test

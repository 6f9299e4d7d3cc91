#pragma once

#include "kvo/os/process_identity.h"
#include "sample_stream.h"
#include "streams/broker_directory.h"
#include "streams/stream_registry.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kvo::brokerd {

/// Processes that live and die as the test says.
class ScriptedProcesses final : public Processes {
public:
    std::optional<ProcessTag> Find(const kvo::os::ProcessIdentity& identity) const override {
        const auto found = tags.find(std::string(identity.begin(), identity.end()));
        return found == tags.end() ? std::nullopt : std::optional(found->second);
    }
    bool Lives(const ProcessTag& tag) const override { return dead.count(tag.number) == 0; }
    bool Connected(const std::string& identity) const override {
        return disconnected.count(identity) == 0;
    }

    std::map<std::string, ProcessTag> tags;  // by identity
    std::set<std::uint16_t> dead;
    std::set<std::string> disconnected;  // identities
};

inline std::string IdentityOf(char process) {
    return std::string(16, process);
}

/// A registry on a directory of its own, with a clock and processes in the test's hand.
class BrokerParts : public ::testing::Test {
protected:
    static constexpr std::chrono::milliseconds kTick{50};
    using Event = std::pair<std::string, NotificationType>;

    BrokerParts() { Restart(); }

    /// As a broker that was killed and started again.
    void Restart() {
        registry.reset();
        files = std::make_unique<StreamFiles>(directory.path(), budget, SpareSlots{},
                                              directory.processes());
        registry = std::make_unique<StreamRegistry>(
            StreamRegistry::Settings{std::chrono::seconds(10), std::chrono::seconds(2), 3}, *files,
            processes, time,
            [this](const std::string& stream, NotificationType type) {
                events.emplace_back(stream, type);
            },
            [this](int, const std::string& text) { log += text + "\n"; });
        registry->Adopt(files->Sweep([this](const std::string& text) { log += text + "\n"; }));
    }

    /// Lets time pass as a running broker sees it.
    void Pass(std::chrono::milliseconds duration) {
        for (auto passed = std::chrono::milliseconds(0); passed < duration; passed += kTick) {
            now += kTick;
            time.Tick();
        }
        registry->Supervise();
    }

    std::int32_t Add(char process, const std::string& stream, const std::string& key = "",
                     std::int32_t bytes = 64, std::int32_t samples = 4) {
        return registry->AddPublisher(IdentityOf(process), {stream, bytes, samples, false, key})
            .code;
    }
    std::string KeyOf(char process, const std::string& stream) {
        return registry->KeyFor(IdentityOf(process), stream);
    }
    std::unique_ptr<KvoMemoryAccessor> WriterOf(const std::string& stream) {
        return test::OpenWriter(files->PathOf(stream), stream, 64);
    }
    std::uint64_t EpochOf(const std::string& stream) {
        return StreamFile::Open(files->PathOf(stream))->epoch();
    }
    std::vector<Event> TakeEvents() { return std::exchange(events, {}); }

    const test::TempDirectory place;
    BrokerDirectory directory{(place.path() / "streams").string()};
    std::uint64_t budget = 64U << 20;
    TimePoint now{};
    SupervisedTime time{[this] { return now; }, kTick};
    ScriptedProcesses processes;
    std::unique_ptr<StreamFiles> files;
    std::vector<Event> events;
    std::string log;
    std::unique_ptr<StreamRegistry> registry;
};

}  // namespace kvo::brokerd

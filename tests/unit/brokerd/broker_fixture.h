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
    std::optional<ProcessTag> Find(const os::ProcessIdentity& identity) const override {
        const auto found = tags.find(identity);
        return found == tags.end() ? std::nullopt : std::optional(found->second);
    }
    bool Lives(const ProcessTag& tag) const override { return dead.count(tag.number) == 0; }
    bool Connected(const os::ProcessIdentity& identity) const override {
        return disconnected.count(identity) == 0;
    }

    std::map<ClientIdentity, ProcessTag> tags;
    std::set<std::uint16_t> dead;
    std::set<ClientIdentity> disconnected;
};

inline constexpr char kAnonymous = 0;

inline ClientIdentity IdentityOf(char process) {
    return process == kAnonymous ? std::nullopt : ParseIdentity(std::string(16, process));
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
            RegistrySettings{std::chrono::seconds(10), std::chrono::seconds(2), 3}, *files,
            processes, time,
            [this](const StreamName& stream, NotificationType type) {
                events.emplace_back(stream.text(), type);
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
        registry->sweep().Run();
    }

    Verdict Publish(char process, const std::string& stream, std::int32_t bytes = 64,
                    std::int32_t samples = 4, const std::string& user = "",
                    const std::string& key = "") {
        return registry->publishers().Add(
            {IdentityOf(process), user}, {StreamName(stream), 250, 10, bytes, samples, false, key});
    }
    std::int32_t Add(char process, const std::string& stream, const std::string& key = "",
                     std::int32_t bytes = 64, std::int32_t samples = 4) {
        return Publish(process, stream, bytes, samples, "", key).code;
    }
    std::int32_t Remove(char process, const std::string& stream) {
        return registry->publishers().Remove(IdentityOf(process), StreamName(stream)).code;
    }
    bool IsPublished(const std::string& stream) {
        return registry->publishers().HasLiving(StreamName(stream));
    }
    std::int32_t Subscribe(char process, const std::string& id, const std::string& stream,
                           const std::string& user = "") {
        return registry->subscribers()
            .Add({IdentityOf(process), user}, SubscriberId(id), StreamName(stream))
            .code;
    }
    std::size_t SubscribersOf(const std::string& stream) {
        return registry->subscribers().CountOf(StreamName(stream));
    }
    std::string KeyOf(char process, const std::string& stream) {
        return registry->publishers().KeyFor(IdentityOf(process), StreamName(stream));
    }
    std::string PathOf(const std::string& stream) { return files->PathOf(StreamName(stream)); }
    std::unique_ptr<KvoMemoryAccessor> WriterOf(const std::string& stream) {
        return test::OpenWriter(PathOf(stream), stream, 64);
    }
    std::uint64_t EpochOf(const std::string& stream) {
        return StreamFile::Open(PathOf(stream))->epoch();
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

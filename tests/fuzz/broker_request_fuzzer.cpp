// Decodes and runs whatever bytes clients may send, on the broker's own registry and files: the
// input is a list of messages, each with its caller and its length before it.
#include "kvo/broker/data_broker_registration_service.h"
#include "kvo/os/process_identity.h"
#include "remote/remote_streams.h"
#include "requests/event_log.h"
#include "requests/gated_service.h"
#include "requests/request_handler.h"
#include "rr/wire.h"
#include "streams/broker_directory.h"
#include "streams/stream_registry.h"
#include "temp_directory.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace kvo::brokerd {
namespace {

constexpr int kMostMessages = 60;
constexpr std::uint64_t kBudgetBytes = 4U << 20;

class NoProcesses final : public Processes {
public:
    std::optional<ProcessTag> Find(const os::ProcessIdentity&) const override {
        return std::nullopt;
    }
    bool Lives(const ProcessTag&) const override { return false; }
    bool Connected(const os::ProcessIdentity&) const override { return true; }
};

class Nobody final : public Accounts {
public:
    Account Of(std::uint32_t, std::uint32_t group) override { return {{}, {{group, {}}}}; }
};

class Parts {
public:
    /// @param directory of all inputs; the registry is each input's own.
    explicit Parts(BrokerDirectory& directory)
        : files_(directory.path(), kBudgetBytes, Spare(), directory.processes()) {}
    ~Parts() {
        remote_.EndAll();
        registry_.Drain();
    }

    void Take(const std::string& identity, std::string_view message) {
        const auto call = gorm::cor::rr::DecodeCall(message);
        if (!call) {
            return;
        }
        std::string answer;
        try {
            // Without remote brokers every result is there at once.
            gated_
                .Dispatch({identity, identity, gorm::cor::LocalPeer{1, 1, 1}}, call->method,
                          call->params())
                .Then([&](const gorm::cor::rr::Result<std::string>& outcome) {
                    const std::uint32_t id = call->id.value_or(0);
                    answer = outcome.value ? gorm::cor::rr::EncodeResult(id, *outcome.value)
                                           : gorm::cor::rr::EncodeError(id, outcome.error);
                });
        } catch (const std::exception& error) {
            answer = gorm::cor::rr::EncodeError(call->id.value_or(0), error.what());
        }
        // What the broker answers is a reply.
        if (!gorm::cor::rr::DecodeReply(answer)) {
            std::fputs("an answer that is none\n", stderr);
            std::abort();
        }
    }
    void Pass() {
        now_ += std::chrono::seconds(6);
        time_.Tick();
        registry_.sweep().Run();
        registry_.sweep().ReclaimReaders();
        remote_.Tick();
    }

private:
    static SpareSlots Spare() {
        SpareSlots spare;
        spare.budget_bytes = 1 << 10;
        return spare;
    }
    TimePoint now_{};
    SupervisedTime time_{[this] { return now_; }, std::chrono::seconds(5)};
    NoProcesses processes_;
    StreamFiles files_;
    EventLog events_;
    Refusals refusals_{events_, [](int, const std::string&) {}};
    StreamRegistry registry_{{std::chrono::seconds(10), std::chrono::milliseconds(2000), 6},
                             files_,
                             processes_,
                             time_,
                             [](const StreamName&, NotificationType) {},
                             [](int, const std::string&) {}};
    Nobody accounts_;
    const Access access_{{AccessRule::Parse("deny subscribe *x* to group:1"),
                          AccessRule::Parse("allow publish * to local"),
                          AccessRule::Parse("allow subscribe * to anyone")},
                         accounts_,
                         0,
                         nullptr};
    // Another broker that answers at once: it has the streams with an even number of letters.
    class NoTransfer final : public RemoteTransfer {
        TransferCounters Counters() const override { return {}; }
    };
    static void AskNobody(const std::string& broker, const std::string& stream, bool,
                          const std::function<void(const RemoteStreams::Answer&)>& answered) {
        RemoteStreams::Answer answer;
        if (broker.size() % 2 == 0) {
            answer.verdict = {kUnknownRemoteBroker, "nobody is there"};
        }
        answer.description = {"there", stream.size() % 2 == 0, broker.size(), 64, 4, false, 0, 0,
                              "topic"};
        answered(answer);
    }
    RemoteStreams remote_{
        "here",
        "here:5000",
        registry_,
        time_,
        {AskNobody,
         [](const RemoteStreams::ImportOrder&) { return std::make_unique<NoTransfer>(); },
         [](const RemoteStreams::ExportOrder&) { return std::make_unique<NoTransfer>(); },
         [](std::unique_ptr<RemoteTransfer>) {}, [](int, const std::string&) {},
         [](const std::string&) { return false; }}};
    RequestHandler handler_{registry_,     files_,
                            remote_,       access_,
                            refusals_,     {[](const StreamName&) {}, [](const StreamName&) {}},
                            {1, 10, 1, {}}};
    DataBrokerRegistrationService<RequestHandler> service_{handler_};
    RequestGate gate_{{1000, 40}};
    GatedService gated_{service_, gate_, [this] { return now_; }};
};

}  // namespace
}  // namespace kvo::brokerd

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const kvo::test::TempDirectory place;
    static kvo::brokerd::BrokerDirectory directory(place.path());
    kvo::brokerd::Parts parts(directory);
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    for (int i = 0; i < kvo::brokerd::kMostMessages && rest.size() >= 2; ++i) {
        const auto caller = static_cast<unsigned char>(rest[0]);
        const std::size_t length =
            std::min<std::size_t>(static_cast<unsigned char>(rest[1]), rest.size() - 2);
        if (caller % 8 == 7) {
            parts.Pass();
        }
        const std::string identity =
            caller % 4 == 0 ? std::string() : std::string(16, static_cast<char>('a' + caller % 4));
        parts.Take(identity, rest.substr(2, length));
        rest.remove_prefix(2 + length);
    }
    return 0;
}

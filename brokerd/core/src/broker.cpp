#include "kvo/brokerd/broker.h"

#include "access/access.h"
#include "broker_options.h"
#include "gorm/cor/curve.h"
#include "gorm/cor/rr/server.h"
#include "gorm/cor/service_loop.h"
#include "kvo/KvoLogger.h"
#include "kvo/broker/capabilities.h"
#include "kvo/broker/data_broker_registration_service.h"
#include "remote/federation.h"
#include "requests/event_log.h"
#include "requests/gated_service.h"
#include "requests/request_handler.h"
#include "streams/broker_directory.h"
#include "streams/locked_processes.h"
#include "streams/stream_registry.h"
#include "streams/topics.h"

#include <optional>
#include <set>
#include <unistd.h>
#include <utility>

namespace kvo::brokerd {
namespace {

// A death on this host shows at once as a lost connection: a process gives its locks up before
// its sockets are closed. This is for the deaths that no connection tells of, so it may be seldom:
// each tick asks the kernel about every client.
constexpr std::chrono::milliseconds kTick{100};
constexpr unsigned kTicksToTopics = 10;  // between two checks of which topics are needed

network::uri Uri(const char* scheme, const std::string& address, std::uint16_t port,
                 const char* path) {
    const bool ipv6 = address.find(':') != std::string::npos;
    return network::uri(std::string(scheme) + "://" + (ipv6 ? "[" + address + "]" : address) + ":" +
                        std::to_string(port) + path);
}

}  // namespace

/// Everything but the loop is made, used and destroyed on the loop.
class Broker::Impl {
public:
    Impl(const BrokerOptions& options, KvoLogger* logger);
    ~Impl();

    // Constant once the broker runs
    std::string uri;
    std::string directory_path;
    std::uint16_t port = 0;
    std::uint16_t notification_port = 0;

    BrokerState State();
    void Reconfigure(const BrokerOptions& options);
    void Drain();

private:
    void Start(const BrokerOptions& options);
    void Stop();
    void OnDisconnect(const gorm::cor::rr::Caller& caller);
    void SuperviseSoon();
    void Notify(const StreamName& stream, NotificationType type);
    void OpenTopic(const StreamName& stream);
    std::vector<std::string> Capabilities() const;
    void Log(int level, const std::string& text) const {
        KvoLogger::WriteToLogger(logger_, level, text);
    }

    KvoLogger* const logger_;
    const TimePoint started_ = std::chrono::steady_clock::now();
    gorm::cor::ServiceLoop loop_;
    std::unique_ptr<BrokerDirectory> directory_;
    std::unique_ptr<StreamFiles> files_;
    std::unique_ptr<LockedProcesses> processes_;
    std::unique_ptr<SupervisedTime> time_;
    std::unique_ptr<gorm::cor::ps::Publisher> publisher_;
    std::unique_ptr<Topics> topics_;
    std::unique_ptr<StreamRegistry> registry_;
    std::unique_ptr<Federation> federation_;
    EventLog events_;
    std::uint64_t notifications_ = 0;
    std::unique_ptr<RequestGate> gate_;
    SystemAccounts accounts_;
    std::shared_ptr<gorm::cor::CurveServer> curve_;  // null: no keys are asked for
    std::unique_ptr<Access> access_;
    Refusals refusals_{events_, [this](int level, const std::string& text) { Log(level, text); }};
    std::unique_ptr<RequestHandler> handler_;
    std::unique_ptr<DataBrokerRegistrationService<RequestHandler>> service_;
    std::unique_ptr<GatedService> gated_service_;
    std::unique_ptr<gorm::cor::rr::Server> server_;
    unsigned ticks_ = 0;
    bool supervision_posted_ = false;
    std::set<os::ProcessIdentity> disconnected_;  // whose last connection ended since then
};

Broker::Impl::Impl(const BrokerOptions& options, KvoLogger* logger) : logger_(logger) {
    CheckHeartbeat(options, logger);
    CheckKeys(options);
    try {
        // In one go, so that no request comes before all is there.
        loop_.Run([&] { Start(options); });
    } catch (...) {
        loop_.Run([this] { Stop(); });
        loop_.Stop();
        throw;
    }
    loop_.Every(kTick, [this] {
        if (registry_ != nullptr) {
            time_->Tick();
            processes_->Refresh();
            registry_->sweep().Run();
            registry_->sweep().ReclaimReaders();
            federation_->Tick();
            gate_->ForgetIdle(std::chrono::steady_clock::now());
            if (++ticks_ % kTicksToTopics == 0) {
                topics_->CloseUnless(
                    [this](const StreamName& stream) { return registry_->Knows(stream); });
            }
        }
    });
}

Broker::Impl::~Impl() {
    loop_.Run([this] { Stop(); });
    loop_.Stop();  // before the members go that the timer looks at
}

void Broker::Impl::Start(const BrokerOptions& options) {
    directory_path = options.directory.empty() ? DefaultDirectory(options.port) : options.directory;
    directory_ = std::make_unique<BrokerDirectory>(directory_path, options.file_access);
    files_ = std::make_unique<StreamFiles>(directory_path, options.memory_budget_bytes,
                                           options.spare_slots, directory_->processes(),
                                           options.file_access);
    processes_ = std::make_unique<LockedProcesses>(directory_->processes());
    time_ =
        std::make_unique<SupervisedTime>([] { return std::chrono::steady_clock::now(); }, kTick);
    gorm::cor::Serving serving;
    serving.runtime_directory = options.runtime_directory;
    serving.note = "a broker with the directory " + directory_path;
    serving.topic_directory = options.local_topics ? directory_path + "/topics" : "";
    // A reader of samples tells the publisher when it sleeps.
    serving.topic_access = {options.file_access.shared_mode(), options.file_access.group};
    if (!options.secret_key_file.empty()) {
        curve_ = std::make_shared<gorm::cor::CurveServer>(
            gorm::cor::ReadCurveKeys(options.secret_key_file),
            gorm::cor::ReadAllowedKeys(options.allowed_keys_file));
        serving.curve = curve_;
    }
    publisher_ = std::make_unique<gorm::cor::ps::Publisher>(
        loop_, Uri("wkp.ps", options.address, options.notification_port, "/"), serving);
    notification_port = publisher_->port();
    topics_ = std::make_unique<Topics>(*publisher_);
    registry_ = std::make_unique<StreamRegistry>(
        RegistrySettingsOf(options), *files_, *processes_, *time_,
        [this](const StreamName& stream, NotificationType type) { Notify(stream, type); },
        [this](int level, const std::string& text) { Log(level, text); });
    publisher_->OnSubscription([this](std::string_view path, bool begins) {
        if (begins) {
            registry_->OnSubscription(Topics::StreamOf(path));
        }
    });
    registry_->Adopt(files_->Sweep([this](const std::string& text) { Log(3, text); }));
    federation_ = std::make_unique<Federation>(
        Federation::Settings{BrokerNameOf(options, notification_port), options.federation,
                             options.exported_streams,
                             publisher_->serves_local() ? serving.topic_directory : "",
                             options.make_federation_engine},
        loop_, *registry_, *files_, *time_, *topics_, logger_);
    access_ = std::make_unique<Access>(
        AccessRulesOf(options), accounts_, ::geteuid(),
        [this](const std::string& key) { return curve_ == nullptr ? "" : curve_->NameOf(key); });
    handler_ = std::make_unique<RequestHandler>(
        *registry_, *files_, federation_->streams(), *access_, refusals_,
        RequestHandler::TopicCalls{[this](const StreamName& stream) { OpenTopic(stream); },
                                   [this](const StreamName& stream) { topics_->Relay(stream); }},
        RequestHandler::Answers{static_cast<std::int32_t>(options.heartbeat_period.count()),
                                static_cast<std::int32_t>(options.heartbeat_timeout.count()),
                                notification_port, Capabilities()});
    service_ = std::make_unique<DataBrokerRegistrationService<RequestHandler>>(*handler_);
    gate_ = std::make_unique<RequestGate>(RequestLimitsOf(options));
    gated_service_ = std::make_unique<GatedService>(
        *service_, *gate_, [] { return std::chrono::steady_clock::now(); });
    server_ = std::make_unique<gorm::cor::rr::Server>(
        loop_, Uri("wkp.rr", options.address, options.port, "/broker/Broker1"), *gated_service_,
        gorm::cor::rr::ServerOptions{options.max_connections,
                                     static_cast<int>(options.pending_answers), serving});
    server_->OnDisconnect([this](const gorm::cor::rr::Caller& caller) { OnDisconnect(caller); });
    processes_->SetConnected([this](const os::ProcessIdentity& identity) {
        return server_->Connected(std::string(identity.begin(), identity.end()));
    });
    port = server_->port();
    uri = Uri("wkp.rr", options.address, port, "").string();
    Log(2, "listening at " + uri + ", notifications at port " + std::to_string(notification_port) +
               ", stream files in " + directory_path);
}

std::vector<std::string> Broker::Impl::Capabilities() const {
    std::vector<std::string> capabilities;
    if (publisher_->serves_local()) {
        capabilities.push_back(kLocalAccountingCapability);
        capabilities.push_back(std::string(kLocalTopicsCapability) + " " +
                               std::to_string(notification_port));
    }
    return capabilities;
}

void Broker::Impl::OpenTopic(const StreamName& stream) {
    topics_->Open(stream);
    registry_->OnSubscription(stream);
}

void Broker::Impl::Notify(const StreamName& stream, NotificationType type) {
    ++notifications_;
    topics_->Open(stream);
    if (const char* const kind = type == PUB_REG     ? "PUB_REG"
                                 : type == PUB_UNREG ? "PUB_UNREG"
                                 : type == SHM_DEL   ? "SHM_DEL"
                                                     : nullptr) {
        events_.Add(kind, stream.text());
    }
    topics_->Publish(stream, type);
    if (federation_ == nullptr) {
        return;
    }
    if (type == NEW_DATA) {
        federation_->streams().NewData(stream.text());
    } else if (type == PUB_REG || type == PUB_UNREG) {
        federation_->streams().PublisherChanged(stream.text());
    }
}

void Broker::Impl::OnDisconnect(const gorm::cor::rr::Caller& caller) {
    if (const ClientIdentity identity = ParseIdentity(caller.identity);
        identity && !server_->Connected(caller.identity)) {
        disconnected_.insert(*identity);
    }
    SuperviseSoon();
}

// Many connections that end together, as when a program with many processes is ended, are judged
// in one go.
void Broker::Impl::SuperviseSoon() {
    if (supervision_posted_) {
        return;
    }
    supervision_posted_ = true;
    loop_.Post([this] {
        supervision_posted_ = false;
        if (registry_ != nullptr) {
            processes_->Refresh();
            registry_->sweep().Run();
            for (const os::ProcessIdentity& identity : std::exchange(disconnected_, {})) {
                registry_->publishers().OnDisconnect(identity);
            }
        }
    });
}

BrokerState Broker::Impl::State() {
    BrokerState state;
    loop_.Run([&] {
        const auto up = std::chrono::steady_clock::now() - started_;
        state.uptime_s = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::seconds>(up).count());
        state.draining = registry_->draining();
        state.connections = server_->connections();
        state.requests = gate_->admitted();
        state.throttled = gate_->throttled();
        state.refusals = refusals_.count();
        state.notifications = notifications_;
        state.memory_used_bytes = files_->used_bytes();
        state.memory_budget_bytes = files_->budget_bytes();
        state.streams = registry_->Streams();
        state.clients = registry_->Clients();
        state.remote_streams = federation_->streams().States();
        state.events = events_.Newest();
    });
    return state;
}

void Broker::Impl::Reconfigure(const BrokerOptions& options) {
    CheckHeartbeat(options, logger_);
    std::vector<AccessRule> rules = AccessRulesOf(options);
    std::optional<gorm::cor::AllowedKeys> allowed;
    if (curve_ != nullptr && !options.allowed_keys_file.empty()) {
        allowed = gorm::cor::ReadAllowedKeys(options.allowed_keys_file);
    }
    loop_.Run([&] {
        if (allowed) {
            curve_->SetAllowed(std::move(*allowed));
        }
        access_->set_rules(std::move(rules));
        registry_->set_settings(RegistrySettingsOf(options));
        handler_->set_heartbeat_timeout(
            static_cast<std::int32_t>(options.heartbeat_timeout.count()));
        files_->SetBudget(options.memory_budget_bytes);
        gate_->set_limits(RequestLimitsOf(options));
    });
}

void Broker::Impl::Drain() {
    loop_.Run([this] {
        federation_->streams().EndAll();
        registry_->Drain();
    });
}

void Broker::Impl::Stop() {
    server_.reset();
    federation_.reset();
    if (registry_ != nullptr) {
        registry_->Shutdown();
    }
    registry_.reset();
    publisher_.reset();
    files_.reset();
    directory_.reset();
}

Broker::Broker(const BrokerOptions& options, KvoLogger* logger)
    : impl_(std::make_unique<Impl>(options, logger)) {}

Broker::~Broker() = default;

std::uint16_t Broker::port() const {
    return impl_->port;
}

std::uint16_t Broker::notification_port() const {
    return impl_->notification_port;
}

const std::string& Broker::directory() const {
    return impl_->directory_path;
}

std::string Broker::uri() const {
    return impl_->uri;
}

BrokerState Broker::State() const {
    return impl_->State();
}

void Broker::Reconfigure(const BrokerOptions& options) {
    impl_->Reconfigure(options);
}

void Broker::Drain() {
    impl_->Drain();
}

}  // namespace kvo::brokerd

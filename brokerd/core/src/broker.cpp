#include "kvo/brokerd/broker.h"

#include "broker_directory.h"
#include "gorm/cor/process.h"
#include "gorm/cor/rr/server.h"
#include "gorm/cor/service_loop.h"
#include "kvo/KvoLogger.h"
#include "request_handler.h"
#include "stream_registry.h"
#include "topics.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kvo::brokerd {
namespace {

// A death on this host shows at once as a lost connection: a process gives its locks up before
// its sockets are closed. This is for the deaths that no connection tells of, so it may be seldom:
// each tick asks the kernel about every client.
constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::seconds kLeastTimeout{3};
// Clients that reconnect after a loss need some seconds before their next heartbeat.
constexpr std::chrono::seconds kUsualMargin{6};

class LockedProcesses final : public Processes {
public:
    explicit LockedProcesses(const ProcessLock& lock) : lock_(lock) {}
    std::optional<ProcessTag> Find(const ProcessIdentity& identity) const override {
        return lock_.Find(identity);
    }
    bool Lives(const ProcessTag& tag) const override { return lock_.Lives(tag); }

private:
    const ProcessLock& lock_;
};

void Check(const BrokerOptions& options, KvoLogger* logger) {
    const auto refuse = [](const std::string& what) { throw std::runtime_error(what); };
    const auto most = std::chrono::seconds(std::numeric_limits<std::int32_t>::max());
    if (options.heartbeat_period < std::chrono::seconds(0) || options.heartbeat_period > most) {
        refuse("heartbeat period of " + std::to_string(options.heartbeat_period.count()) +
               " s: 0 (none) or more is possible");
    }
    if (options.heartbeat_timeout < kLeastTimeout || options.heartbeat_timeout > most) {
        refuse("heartbeat time-out of " + std::to_string(options.heartbeat_timeout.count()) +
               " s: at least " + std::to_string(kLeastTimeout.count()) + " s is possible");
    }
    if (options.heartbeat_timeout < options.heartbeat_period + kUsualMargin) {
        KvoLogger::WriteToLogger(
            logger, 3,
            "a heartbeat time-out of " + std::to_string(options.heartbeat_timeout.count()) +
                " s is short for a period of " + std::to_string(options.heartbeat_period.count()) +
                " s: clients that reconnect may be taken for gone");
    }
}

network::uri Uri(const char* scheme, const std::string& address, std::uint16_t port,
                 const char* path) {
    const bool ipv6 = address.find(':') != std::string::npos;
    return network::uri(std::string(scheme) + "://" + (ipv6 ? "[" + address + "]" : address) + ":" +
                        std::to_string(port) + path);
}

// The directory is locked before a port is bound, so one that any free port is good for has a
// name of its own.
std::string DefaultDirectory(std::uint16_t port) {
    const std::string begin = "/dev/shm/kvo-" + std::to_string(::geteuid()) + "-";
    if (port != 0) {
        return begin + std::to_string(port);
    }
    std::string path = begin + "XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "making a directory " + path);
    }
    return path;
}

}  // namespace

/// Everything but the loop is made, used and destroyed on the loop.
class Broker::Impl {
public:
    Impl(const BrokerOptions& options, KvoLogger* logger);
    ~Impl();

    // Constant once the broker runs
    std::string uri_;
    std::string directory_path_;
    std::uint16_t port_ = 0;
    std::uint16_t notification_port_ = 0;

private:
    void Start(const BrokerOptions& options);
    void Stop();
    void SuperviseSoon();
    void Log(int level, const std::string& text) const {
        KvoLogger::WriteToLogger(logger_, level, text);
    }

    KvoLogger* const logger_;
    gorm::cor::ServiceLoop loop_;
    std::unique_ptr<BrokerDirectory> directory_;
    std::unique_ptr<StreamFiles> files_;
    std::unique_ptr<LockedProcesses> processes_;
    std::unique_ptr<SupervisedTime> time_;
    std::unique_ptr<gorm::cor::ps::Publisher> publisher_;
    std::unique_ptr<Topics> topics_;
    std::unique_ptr<StreamRegistry> registry_;
    std::unique_ptr<RequestHandler> handler_;
    std::unique_ptr<gorm::cor::rr::Service> service_;
    std::unique_ptr<gorm::cor::rr::Server> server_;
    bool supervision_posted_ = false;
};

Broker::Impl::Impl(const BrokerOptions& options, KvoLogger* logger) : logger_(logger) {
    Check(options, logger);
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
            registry_->Supervise();
            registry_->ReapSome();
        }
    });
}

Broker::Impl::~Impl() {
    loop_.Run([this] { Stop(); });
    loop_.Stop();  // before the members go that the timer looks at
}

void Broker::Impl::Start(const BrokerOptions& options) {
    ProcessLock::SetProcessIdentity(gorm::cor::process_identity());
    directory_path_ =
        options.directory.empty() ? DefaultDirectory(options.port) : options.directory;
    directory_ = std::make_unique<BrokerDirectory>(directory_path_);
    files_ = std::make_unique<StreamFiles>(directory_path_, options.memory_budget_bytes,
                                           options.spare_slots, directory_->processes());
    processes_ = std::make_unique<LockedProcesses>(directory_->processes());
    time_ =
        std::make_unique<SupervisedTime>([] { return std::chrono::steady_clock::now(); }, kTick);
    publisher_ = std::make_unique<gorm::cor::ps::Publisher>(
        loop_, Uri("wkp.ps", options.address, options.notification_port, "/"));
    notification_port_ = publisher_->port();
    topics_ = std::make_unique<Topics>(*publisher_);
    const bool supervised = options.heartbeat_period.count() > 0;
    registry_ = std::make_unique<StreamRegistry>(
        StreamRegistry::Settings{supervised ? options.heartbeat_timeout : std::chrono::seconds(0),
                                 options.removal_grace, options.max_streams},
        *files_, *processes_, *time_,
        [this](const std::string& stream, NotificationType type) {
            topics_->Publish(stream, type);
        },
        [this](int level, const std::string& text) { Log(level, text); });
    publisher_->OnSubscription([this](std::string_view path, bool begins) {
        if (begins) {
            registry_->Listening(Topics::StreamOf(path));
        }
    });
    registry_->Adopt(files_->Sweep([this](const std::string& text) { Log(3, text); }));
    handler_ = std::make_unique<RequestHandler>(
        *registry_, *files_,
        RequestHandler::Answers{static_cast<std::int32_t>(options.heartbeat_period.count()),
                                static_cast<std::int32_t>(options.heartbeat_timeout.count()),
                                notification_port_});
    service_ = MakeDataBrokerRegistrationService(*handler_);
    server_ = std::make_unique<gorm::cor::rr::Server>(
        loop_, Uri("wkp.rr", options.address, options.port, "/broker/Broker1"), *service_);
    server_->OnDisconnect([this] { SuperviseSoon(); });
    port_ = server_->port();
    uri_ = Uri("wkp.rr", options.address, port_, "").string();
    Log(2, "listening at " + uri_ + ", notifications at port " +
               std::to_string(notification_port_) + ", stream files in " + directory_path_);
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
            registry_->Supervise();
        }
    });
}

void Broker::Impl::Stop() {
    server_.reset();
    if (registry_ != nullptr) {
        registry_->Leave();
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
    return impl_->port_;
}

std::uint16_t Broker::notification_port() const {
    return impl_->notification_port_;
}

const std::string& Broker::directory() const {
    return impl_->directory_path_;
}

std::string Broker::uri() const {
    return impl_->uri_;
}

}  // namespace kvo::brokerd

#include "gorm/cor/ps/publisher.h"

#include "curve/curve_domain.h"
#include "kvo/os/crash_point.h"
#include "kvo/os/file_access.h"
#include "kvo/os/fork_guard.h"
#include "local/local_endpoint.h"
#include "local/topic_ring_server.h"
#include "transport/address.h"
#include "transport/bounds.h"
#include "transport/context.h"
#include "transport/log.h"
#include "transport/service_loop_impl.h"
#include "transport/sockets.h"

#include <zmq.hpp>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace gorm::cor::ps {
namespace {

zmq::socket_t MakeXpub(zmq::context_t& context, const Address& address) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::xpub, kSampleQueue, kMaxRequestBytes);
    // Every subscription and every end of one is told, not only the first and the last.
    socket.set(zmq::sockopt::xpub_verboser, true);
    socket.set(zmq::sockopt::backlog, kBacklog);
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    socket.set(zmq::sockopt::linger, 1000);  // the last notifications still leave
    return socket;
}

}  // namespace

/// Lives on the loop.
class Publisher::Impl {
public:
    Impl(PollLoop& loop, const Address& address, const Serving& serving);
    ~Impl();

    void Publish(std::string_view path, std::string_view sample);
    void Relay(std::string_view path, std::string_view sample);
    void OpenLocal(std::string_view path, std::string_view notification);
    void CloseLocal(std::string_view path);
    bool serves_local() const { return serves_local_; }

    PollLoop& loop;
    std::uint16_t port = 0;
    std::function<void(std::string_view, bool)> on_subscription;

private:
    void TakeSubscriptions();

    void BindLocal(const Serving& serving, const Address& address, std::uint16_t at);
    void ServeTopics();
    void CountListener(std::string_view path, bool begins);
    bool IsRelayed(const std::string& path) const {
        return watchers_ != 0 || listeners_.count(path) != 0;
    }

    const std::string topic_directory_;
    const kvo::os::FileAccess topic_access_;
    std::shared_ptr<CurveServer> curve_;  // null: none
    zmq::socket_t socket_;
    Monitor monitor_;
    std::string tcp_;    // endpoints as they were bound
    std::string local_;  // empty: none
    std::unique_ptr<LocalEndpoint> local_endpoint_;
    bool serves_local_ = false;
    std::map<std::string, std::unique_ptr<TopicRingServer>, std::less<>> rings_;  // by path
    std::map<std::string, int, std::less<>> listeners_;  // at sockets, by path
    int watchers_ = 0;                                   // at sockets, of more than one path
};

Publisher::Impl::Impl(PollLoop& service_loop, const Address& address, const Serving& serving)
    : loop(service_loop),
      topic_directory_(serving.topic_directory),
      topic_access_(serving.topic_access),
      socket_(MakeXpub(transport_context(), address)),
      monitor_(transport_context(), socket_, ZMQ_EVENT_CLOSED | ZMQ_EVENT_CLOSE_FAILED) {
    if (address.port != 0) {
        BindLocal(serving, address, address.port);
    }
    if (serving.curve != nullptr) {
        curve_ = serving.curve;
        curve_->domain().Secure(socket_);
    }
    tcp_ = Bind(socket_, address.endpoint, address.text);
    port = PortOf(tcp_);
    if (address.port == 0) {
        BindLocal(serving, address, port);
    }
    ServeTopics();
    loop.Watch(socket_, [this] { TakeSubscriptions(); });
}

Publisher::Impl::~Impl() {
    loop.Unwatch(socket_);
    // In this order, so that the port is free for others only after its lock is.
    rings_.clear();
    if (serves_local_) {
        ::rmdir(topic_directory_.c_str());
    }
    Unbind(socket_, monitor_, local_);
    local_endpoint_.reset();
    Unbind(socket_, monitor_, tcp_);
}

void Publisher::Impl::BindLocal(const Serving& serving, const Address& address, std::uint16_t at) {
    local_endpoint_ = ServeLocal(serving, address, at, [&](const std::string& endpoint) {
        CurveDomain::AcceptPlain(socket_);
        local_ = Bind(socket_, endpoint, address.text);
    });
}

void Publisher::Impl::TakeSubscriptions() {
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(socket_, frames); ++i) {
        // 1 or 0 (begins or ends), then the topic's frame. What does not end like one is a prefix
        // of topics, or no subscription at all.
        const std::string_view text = View(frames[0]);
        const bool is_topic = text.size() > 2 && (text[0] == '\0' || text[0] == '\1') &&
                              text.find('\0', 1) == text.size() - 1;
        if (is_topic) {
            const std::string_view path = text.substr(1, text.size() - 2);
            // Before the callback, which may tell the new listener of what is there.
            CountListener(path, text[0] == '\1');
            if (on_subscription) {
                on_subscription(path, text[0] == '\1');
            }
        } else if (!text.empty()) {
            watchers_ += text[0] == '\1' ? 1 : -1;
            for (auto& [path, ring] : rings_) {
                ring->SetRelayed(IsRelayed(path));
            }
        }
    }
}

void Publisher::Impl::CountListener(std::string_view path, bool begins) {
    const auto [listener, added] = listeners_.try_emplace(std::string(path), 0);
    listener->second += begins ? 1 : -1;
    if (listener->second <= 0) {
        listeners_.erase(listener);
    }
    if (const auto ring = rings_.find(path); ring != rings_.end()) {
        ring->second->SetRelayed(IsRelayed(ring->first));
    }
}

// What an earlier publisher of the directory has left is closed.
void Publisher::Impl::ServeTopics() {
    if (local_endpoint_ == nullptr || topic_directory_.empty()) {
        return;
    }
    try {
        std::filesystem::create_directory(topic_directory_);
        KVO_CRASH_POINT("topic directory made");
        const auto group = topic_access_.group.value_or(static_cast<gid_t>(-1));
        if (::chown(topic_directory_.c_str(), static_cast<uid_t>(-1), group) != 0 ||
            ::chmod(topic_directory_.c_str(), topic_access_.directory_mode()) != 0) {
            throw std::system_error(errno, std::generic_category(), topic_directory_);
        }
        KVO_CRASH_POINT("topic directory given its rights");
        TopicRingServer::RemoveAll(topic_directory_);
        local_endpoint_->LinkTopics(topic_directory_);
        serves_local_ = true;
    } catch (const std::exception& error) {
        LogWarning("no local topics in " + topic_directory_ + ": " + error.what());
    }
}

void Publisher::Impl::OpenLocal(std::string_view path, std::string_view notification) {
    if (!serves_local_ || rings_.count(path) != 0) {
        return;
    }
    try {
        auto ring = TopicRingServer::Make(topic_directory_, path, notification, topic_access_);
        ring->SetRelayed(IsRelayed(std::string(path)));
        rings_.emplace(path, std::move(ring));
    } catch (const std::exception& error) {
        LogWarning("a topic goes over sockets only: " + std::string(error.what()));
    }
}

void Publisher::Impl::CloseLocal(std::string_view path) {
    if (const auto ring = rings_.find(path); ring != rings_.end()) {
        rings_.erase(ring);
    }
}

void Publisher::Impl::Publish(std::string_view path, std::string_view sample) {
    if (const auto ring = rings_.find(path);
        ring != rings_.end() && !ring->second->Publish(sample)) {
        LogWarning("a topic goes over sockets only: it has too many different samples");
        rings_.erase(ring);
    }
    Relay(path, sample);
}

void Publisher::Impl::Relay(std::string_view path, std::string_view sample) {
    constexpr auto kMore = zmq::send_flags::dontwait | zmq::send_flags::sndmore;
    std::string topic(path);
    topic.push_back('\0');
    const auto ring = rings_.find(path);
    const std::string position = ring == rings_.end() ? "" : ring->second->Position();
    if (socket_.send(zmq::buffer(topic), kMore) && socket_.send(zmq::buffer(sample), kMore)) {
        socket_.send(zmq::buffer(position), zmq::send_flags::dontwait);
    }
}

Publisher::Publisher(ServiceLoop& loop, const network::uri& uri, const Serving& serving) {
    const Address address = Address::ToBind(uri, kTopicScheme);
    PollLoop& poll_loop = loop.impl().loop;
    poll_loop.Run([&] { impl_ = std::make_unique<Impl>(poll_loop, address, serving); });
}

Publisher::~Publisher() {
    if (kvo::os::InForkedChild()) {
        static_cast<void>(impl_.release());  // closing the sockets would reach into the parent
        return;
    }
    impl_->loop.Run([this] { impl_.reset(); });
}

std::uint16_t Publisher::port() const {
    return impl_->port;
}

void Publisher::Publish(std::string_view path, std::string_view sample) {
    impl_->Publish(path, sample);
}

void Publisher::Relay(std::string_view path, std::string_view sample) {
    impl_->Relay(path, sample);
}

void Publisher::OpenLocal(std::string_view path, std::string_view notification) {
    impl_->OpenLocal(path, notification);
}

void Publisher::CloseLocal(std::string_view path) {
    impl_->CloseLocal(path);
}

bool Publisher::serves_local() const {
    return impl_->serves_local();
}

void Publisher::OnSubscription(std::function<void(std::string_view, bool)> callback) {
    impl_->loop.Run([&] { impl_->on_subscription = std::move(callback); });
}

}  // namespace gorm::cor::ps

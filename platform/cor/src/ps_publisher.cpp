#include "address.h"
#include "bounds.h"
#include "curve_server.h"
#include "gorm/cor/process.h"
#include "gorm/cor/ps/publisher.h"
#include "local_endpoint.h"
#include "runtime.h"
#include "service_loop_impl.h"
#include "sockets.h"
#include "wkp_cor.h"

#include <zmq.hpp>

#include <string>
#include <string_view>
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

    PollLoop& loop;
    std::uint16_t port = 0;
    std::function<void(std::string_view, bool)> on_subscription;

private:
    void TakeSubscriptions();

    void BindLocal(const Serving& serving, const Address& address, std::uint16_t at);

    std::shared_ptr<CurveServer> curve_;  // null: none
    zmq::socket_t socket_;
    Monitor monitor_;
    std::string tcp_;    // endpoints as they were bound
    std::string local_;  // empty: none
    std::unique_ptr<LocalEndpoint> local_endpoint_;
};

Publisher::Impl::Impl(PollLoop& service_loop, const Address& address, const Serving& serving)
    : loop(service_loop),
      socket_(MakeXpub(Runtime::Get().context(), address)),
      monitor_(Runtime::Get().context(), socket_, ZMQ_EVENT_CLOSED | ZMQ_EVENT_CLOSE_FAILED) {
    if (address.port != 0) {
        BindLocal(serving, address, address.port);
    }
    if (serving.curve != nullptr) {
        curve_ = serving.curve;
        curve_->impl().Secure(socket_);
    }
    tcp_ = Bind(socket_, address.endpoint, address.text);
    port = PortOf(tcp_);
    if (address.port == 0) {
        BindLocal(serving, address, port);
    }
    loop.Watch(socket_, [this] { TakeSubscriptions(); });
}

Publisher::Impl::~Impl() {
    loop.Unwatch(socket_);
    // In this order, so that the port is free for others only after its lock is.
    Unbind(socket_, monitor_, local_);
    local_endpoint_.reset();
    Unbind(socket_, monitor_, tcp_);
}

void Publisher::Impl::BindLocal(const Serving& serving, const Address& address, std::uint16_t at) {
    local_endpoint_ = ServeLocal(serving, address, at, [&](const std::string& endpoint) {
        CurveServer::Impl::Open(socket_);
        local_ = Bind(socket_, endpoint, address.text);
    });
}

void Publisher::Impl::TakeSubscriptions() {
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(socket_, frames); ++i) {
        // 1 or 0 (begins or ends), then the topic's frame. What does not end like one is a prefix
        // that somebody watches, or no subscription at all.
        const std::string_view text = View(frames[0]);
        const bool is_topic = text.size() > 2 && (text[0] == '\0' || text[0] == '\1') &&
                              text.find('\0', 1) == text.size() - 1;
        if (is_topic && on_subscription) {
            on_subscription(text.substr(1, text.size() - 2), text[0] == '\1');
        }
    }
}

void Publisher::Impl::Publish(std::string_view path, std::string_view sample) {
    std::string topic(path);
    topic.push_back('\0');
    if (socket_.send(zmq::buffer(topic), zmq::send_flags::dontwait | zmq::send_flags::sndmore)) {
        socket_.send(zmq::buffer(sample), zmq::send_flags::dontwait);
    }
}

Publisher::Publisher(ServiceLoop& loop, const network::uri& uri, const Serving& serving) {
    const Address address = Address::ToBind(uri, kTopicScheme);
    PollLoop& poll_loop = loop.impl().loop;
    poll_loop.Run([&] { impl_ = std::make_unique<Impl>(poll_loop, address, serving); });
}

Publisher::~Publisher() {
    if (in_forked_child()) {
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

void Publisher::OnSubscription(std::function<void(std::string_view, bool)> callback) {
    impl_->loop.Run([&] { impl_->on_subscription = std::move(callback); });
}

}  // namespace gorm::cor::ps

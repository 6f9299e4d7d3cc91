#include "gorm/cor/rr/server.h"

#include "kvo/os/fork_guard.h"
#include "local/local_endpoint.h"
#include "rr/router.h"
#include "rr/wire.h"
#include "transport/address.h"
#include "transport/bounds.h"
#include "transport/context.h"
#include "transport/service_loop_impl.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace gorm::cor::rr {

Service::~Service() = default;

/// Lives on the loop.
class Server::Impl final : public RouterUser {
public:
    Impl(PollLoop& loop, const Address& address, Service& service, const ServerOptions& options);
    ~Impl() override;

    PollLoop& loop;
    std::uint16_t port = 0;
    std::function<void(const Caller&)> on_disconnect;

    bool Connected(const std::string& identity) const { return connected_.count(identity) != 0; }
    std::size_t connections() const { return connections_; }

    bool OnConnected(const Caller& caller) override;
    void OnDisconnected(const Caller& caller) override;
    Deferred<std::string> Answer(const Caller& caller, std::string_view path,
                                 const Call& call) override;
    std::string RejectTooMany(const Call& call) const override;

private:
    const std::string path_;
    Service& service_;
    const ServerOptions options_;
    std::size_t connections_ = 0;           // that have sent a call
    std::map<std::string, int> connected_;  // of these, by identity
    std::unique_ptr<Router> tcp_;
    std::unique_ptr<LocalEndpoint> local_endpoint_;
    std::unique_ptr<Router> local_;
};

Server::Impl::Impl(PollLoop& service_loop, const Address& address, Service& service,
                   const ServerOptions& options)
    : loop(service_loop), path_(address.path), service_(service), options_(options) {
    zmq::context_t& context = transport_context();
    Router::Settings tcp;
    tcp.endpoint = address.endpoint;
    tcp.text = address.text;
    tcp.this_host = IsLoopback(address.host);
    tcp.ipv6 = address.ipv6;
    tcp.curve = options.serving.curve;
    tcp.max_pending_answers = options.max_pending_answers;
    const auto serve_local = [&](std::uint16_t at) {
        const auto bind = [&](const std::string& endpoint) {
            Router::Settings local;
            local.endpoint = endpoint;
            local.text = address.text;
            local.local = true;
            local.max_pending_answers = options.max_pending_answers;
            local_ = std::make_unique<Router>(loop, context, local, *this);
        };
        local_endpoint_ = ServeLocal(options.serving, address, at, bind);
        if (local_endpoint_ == nullptr) {
            local_.reset();
        }
    };
    // The Unix socket first, so that clients that await the server find it.
    if (address.port != 0) {
        serve_local(address.port);
    }
    tcp_ = std::make_unique<Router>(loop, context, tcp, *this);
    port = PortOf(tcp_->endpoint());
    if (address.port == 0) {
        serve_local(port);
    }
}

Server::Impl::~Impl() {
    on_disconnect = nullptr;
    // The lock goes before the port is free for others, and connections go last: a client that is
    // lost before would find us over TCP once more.
    if (local_ != nullptr) {
        local_->StopListening();
    }
    local_endpoint_.reset();
    tcp_->StopListening();
}

bool Server::Impl::OnConnected(const Caller& caller) {
    ++connections_;
    ++connected_[caller.identity];
    return connections_ <= options_.max_connections;
}

void Server::Impl::OnDisconnected(const Caller& caller) {
    --connections_;
    if (--connected_[caller.identity] == 0) {
        connected_.erase(caller.identity);
    }
    if (on_disconnect) {
        on_disconnect(caller);
    }
}

std::string Server::Impl::RejectTooMany(const Call& call) const {
    return EncodeError(
        call.id.value_or(0),
        "there are already " + std::to_string(options_.max_connections) + " connections");
}

namespace {

std::string EncodeOutcome(std::uint32_t id, const Result<std::string>& outcome) {
    if (!outcome.value) {
        return EncodeError(id, outcome.error);
    }
    std::string answer = EncodeResult(id, *outcome.value);
    if (answer.size() > kMaxReplyBytes) {
        // Sent, it would cost the client its link.
        return EncodeError(id, "the answer has " + std::to_string(answer.size()) +
                                   " bytes, at most " + std::to_string(kMaxReplyBytes) +
                                   " can be sent");
    }
    return answer;
}

}  // namespace

Deferred<std::string> Server::Impl::Answer(const Caller& caller, std::string_view path,
                                           const Call& call) {
    const std::uint32_t id = call.id.value_or(0);
    try {
        if (path != path_) {
            return EncodeError(id, "nothing is served at the path of the request");
        }
        Deferred<std::string> answer;
        service_.Dispatch(caller, call.method, call.params())
            .Then([answer, id](const Result<std::string>& outcome) {
                answer.Resolve(EncodeOutcome(id, outcome));
            });
        return answer;
    } catch (const std::exception& error) {
        return EncodeError(id, error.what());
    }
}

Server::Server(ServiceLoop& loop, const network::uri& uri, Service& service,
               const ServerOptions& options) {
    const Address address = Address::ToBind(uri, kRequestScheme);
    PollLoop& poll_loop = loop.impl().loop;
    poll_loop.Run([&] { impl_ = std::make_unique<Impl>(poll_loop, address, service, options); });
}

Server::~Server() {
    if (kvo::os::InForkedChild()) {
        static_cast<void>(impl_.release());  // closing the sockets would reach into the parent
        return;
    }
    impl_->loop.Run([this] { impl_.reset(); });
}

std::uint16_t Server::port() const {
    return impl_->port;
}

void Server::OnDisconnect(std::function<void(const Caller&)> callback) {
    impl_->loop.Run([&] { impl_->on_disconnect = std::move(callback); });
}

std::size_t Server::connections() const {
    return impl_->connections();
}

bool Server::Connected(const std::string& identity) const {
    return impl_->Connected(identity);
}

}  // namespace gorm::cor::rr

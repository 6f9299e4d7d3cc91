#include "http_endpoint.h"

#include "metrics.h"

#include <httplib.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

namespace kvo::brokerd {
namespace {

using nlohmann::json;

constexpr int kThreads = 2;
constexpr std::size_t kMaxQuestionBytes = 4096;

json ToJson(const StreamState& stream) {
    return {{"name", stream.name},
            {"published", stream.published},
            {"remote_broker", stream.remote_broker},
            {"remote_live", stream.remote_live},
            {"subscribers", stream.subscribers},
            {"samples", stream.samples},
            {"payload_bytes", stream.payload_bytes},
            {"dropped", stream.dropped},
            {"last_write_ms", stream.last_write_ms},
            {"path", stream.path},
            {"epoch", stream.epoch},
            {"max_payload_bytes", stream.max_payload_bytes},
            {"retained_samples", stream.retained_samples},
            {"file_bytes", stream.file_bytes}};
}

json ToJson(const ClientState& client) {
    return {{"id", client.id},
            {"kind", client.publisher ? "publisher" : "subscriber"},
            {"stream", client.stream},
            {"stalled", client.stalled},
            {"silent_for_ms", client.silent_for_ms}};
}

json ToJson(const BrokerEvent& event) {
    return {{"time_ms", event.time_ms},
            {"kind", event.kind},
            {"stream", event.stream},
            {"text", event.text}};
}

json ToJson(const RemoteStreamState& state) {
    json fields;
    RemoteStreamState::ForEachField(
        state, [&fields](const char* name, const auto& field) { fields[name] = field; });
    return fields;
}

template <class T>
json ListOf(const std::vector<T>& items) {
    json list = json::array();
    for (const T& item : items) {
        list.push_back(ToJson(item));
    }
    return list;
}

void Answer(httplib::Response& response, const json& content) {
    // Names may hold any byte that a client has sent.
    response.set_content(content.dump(2, ' ', false, json::error_handler_t::replace) + "\n",
                         "application/json");
}

}  // namespace

class HttpEndpoint::Impl {
public:
    Impl(const std::string& address, std::uint16_t port, const Broker& broker) : broker_(broker) {
        server_.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
        server_.set_payload_max_length(kMaxQuestionBytes);
        server_.set_keep_alive_max_count(1);
        server_.set_read_timeout(2);
        // The library's own choice would let a second server share the port.
        server_.set_socket_options([](socket_t socket) {
            const int yes = 1;
            ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        AddPaths();
        port_ = port != 0 ? (server_.bind_to_port(address.c_str(), port) ? port : -1)
                          : server_.bind_to_any_port(address.c_str());
        if (port_ <= 0) {
            throw std::runtime_error("cannot serve HTTP at " + address + ":" +
                                     std::to_string(port));
        }
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // A stop that comes before it runs would be lost.
        while (!server_.is_running()) {
            std::this_thread::yield();
        }
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() {
        server_.stop();
        thread_.join();
    }
    std::uint16_t port() const { return static_cast<std::uint16_t>(port_); }

private:
    void AddPaths() {
        server_.Get("/healthz", [this](const httplib::Request&, httplib::Response& response) {
            broker_.State();  // passes through the broker's loop
            response.set_content("ok\n", "text/plain");
        });
        server_.Get("/readyz", [this](const httplib::Request&, httplib::Response& response) {
            const bool draining = broker_.State().draining;
            response.status = draining ? 503 : 200;
            response.set_content(draining ? "draining\n" : "ready\n", "text/plain");
        });
        server_.Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
            response.set_content(MetricsOf(broker_.State()), "text/plain; version=0.0.4");
        });
        server_.Get("/api/v1/streams", [this](const httplib::Request&, httplib::Response& r) {
            Answer(r, {{"streams", ListOf(broker_.State().streams)}});
        });
        server_.Get("/api/v1/clients", [this](const httplib::Request&, httplib::Response& r) {
            Answer(r, {{"clients", ListOf(broker_.State().clients)}});
        });
        server_.Get("/api/v1/events", [this](const httplib::Request&, httplib::Response& r) {
            Answer(r, {{"events", ListOf(broker_.State().events)}});
        });
        server_.Get("/api/v1/brokers", [this](const httplib::Request&, httplib::Response& r) {
            Answer(r, {{"brokers", ListOf(broker_.State().remote_streams)}});
        });
        server_.set_error_handler([](const httplib::Request&, httplib::Response& response) {
            if (response.body.empty()) {
                Answer(response, {{"error", "status " + std::to_string(response.status)}});
            }
        });
    }

    const Broker& broker_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

HttpEndpoint::HttpEndpoint(const std::string& address, std::uint16_t port, const Broker& broker)
    : impl_(std::make_unique<Impl>(address, port, broker)) {}

HttpEndpoint::~HttpEndpoint() = default;

std::uint16_t HttpEndpoint::port() const {
    return impl_->port();
}

}  // namespace kvo::brokerd

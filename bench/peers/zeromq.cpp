// ZeroMQ, PUB and SUB, through a Unix socket or TCP. Its queues have no limit here: the flow bounds
// what is on its way, and a PUB socket learns too late that its queue has room again to use one as
// short as that.
#include "daemon.h"
#include "flow.h"
#include "peers.h"

#include <zmq.hpp>

#include <string>

namespace kvo::bench {
namespace {

class ZeroMqPublisher : public Publisher {
public:
    // A port that the kernel chooses is known only here, so it goes to the readers in `endpoint`.
    ZeroMqPublisher(const Load& load, const std::string& address, char* endpoint,
                    std::size_t endpoint_bytes)
        : bytes_(load.bytes) {
        socket_.set(zmq::sockopt::sndhwm, 0);
        socket_.set(zmq::sockopt::linger, 0);
        socket_.bind(address);
        const std::string bound = socket_.get(zmq::sockopt::last_endpoint);
        endpoint[bound.copy(endpoint, endpoint_bytes - 1)] = '\0';
    }
    void Write(const unsigned char* payload) override {
        socket_.send(zmq::const_buffer(payload, bytes_), zmq::send_flags::none);
    }

private:
    zmq::context_t context_;
    zmq::socket_t socket_{context_, zmq::socket_type::pub};
    const std::size_t bytes_;
};

class ZeroMqSubscriber : public Subscriber {
public:
    explicit ZeroMqSubscriber(const char* endpoint) {
        socket_.set(zmq::sockopt::rcvhwm, 0);
        socket_.set(zmq::sockopt::rcvtimeo, 100);
        socket_.set(zmq::sockopt::subscribe, "");
        socket_.connect(endpoint);
    }
    void Receive(Account& account) override {
        zmq::message_t message;
        while (!account.over()) {
            if (socket_.recv(message)) {
                account.Take(message.data<unsigned char>());
            }
        }
    }

private:
    zmq::context_t context_;
    zmq::socket_t socket_{context_, zmq::socket_type::sub};
};

class ZeroMq : public Peer {
public:
    ZeroMq(const Load& load, bool tcp)
        : load_(load),
          address_(tcp ? "tcp://127.0.0.1:*" : "ipc://" + directory_.path() + "/socket") {}
    std::unique_ptr<Publisher> MakePublisher() const override {
        return std::make_unique<ZeroMqPublisher>(load_, address_, endpoint_.begin(),
                                                 kEndpointBytes);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t) const override {
        return std::make_unique<ZeroMqSubscriber>(endpoint_.begin());
    }

private:
    static constexpr std::size_t kEndpointBytes = 256;
    const Load load_;
    const ScratchDirectory directory_;
    const std::string address_;
    const SharedPages<char> endpoint_{kEndpointBytes};  // the publisher writes before it is ready
};

}  // namespace

std::unique_ptr<Peer> MakeZeroMqIpc(const Load& load) {
    return std::make_unique<ZeroMq>(load, false);
}
std::unique_ptr<Peer> MakeZeroMqTcp(const Load& load) {
    return std::make_unique<ZeroMq>(load, true);
}

}  // namespace kvo::bench

// ZeroMQ over TCP: one message for each sample.
#include "ends.h"

#include <zmq.hpp>

namespace kvo::bench {
namespace {

class ZeroMqSender final : public Sender {
public:
    explicit ZeroMqSender(const Link& link) {
        socket_.set(zmq::sockopt::sndhwm, link.buffers);
        socket_.bind(std::string("tcp://*:") + kPort);
    }
    void Send(const unsigned char* payload, std::size_t bytes) override {
        socket_.send(zmq::buffer(payload, bytes));
    }

private:
    zmq::context_t context_;
    zmq::socket_t socket_{context_, zmq::socket_type::push};
};

}  // namespace

std::unique_ptr<Sender> SendByZeroMq(const Link& link) {
    return std::make_unique<ZeroMqSender>(link);
}

void ReceiveByZeroMq(const Link& link, const Taken& taken) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::pull);
    socket.set(zmq::sockopt::rcvhwm, link.buffers);
    socket.connect("tcp://" + link.peer + ":" + kPort);
    for (zmq::message_t message; socket.recv(message).has_value();) {
        taken(message.data<unsigned char>());
    }
}

}  // namespace kvo::bench

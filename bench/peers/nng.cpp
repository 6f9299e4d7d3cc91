// NNG, PUB and SUB, through a Unix socket. Its queues are as long as they can be, for the same
// reason as those of ZeroMQ.
#include "daemon.h"
#include "flow.h"
#include "peers.h"

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <stdexcept>
#include <string>

namespace kvo::bench {
namespace {

constexpr int kLongestQueue = 8192;

void Check(int error) {
    if (error != 0) {
        throw std::runtime_error(::nng_strerror(error));
    }
}

class Socket {
public:
    explicit Socket(int (*open)(nng_socket*)) { Check(open(&socket_)); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { ::nng_close(socket_); }
    nng_socket get() const { return socket_; }

private:
    nng_socket socket_{};
};

class NngPublisher : public Publisher {
public:
    NngPublisher(const Load& load, const std::string& address) : bytes_(load.bytes) {
        Check(::nng_socket_set_int(socket_.get(), NNG_OPT_SENDBUF, kLongestQueue));
        Check(::nng_listen(socket_.get(), address.c_str(), nullptr, 0));
    }
    void Write(const unsigned char* payload) override {
        // The payload is copied; without NNG_FLAG_ALLOC it stays the caller's.
        Check(::nng_send(socket_.get(), const_cast<unsigned char*>(payload), bytes_, 0));
    }

private:
    const Socket socket_{::nng_pub0_open};
    const std::size_t bytes_;
};

class NngSubscriber : public Subscriber {
public:
    explicit NngSubscriber(const std::string& address) {
        Check(::nng_socket_set_int(socket_.get(), NNG_OPT_RECVBUF, kLongestQueue));
        Check(::nng_socket_set_size(socket_.get(), NNG_OPT_RECVMAXSZ, 0));  // no limit
        Check(::nng_socket_set_ms(socket_.get(), NNG_OPT_RECVTIMEO, 100));
        Check(::nng_socket_set(socket_.get(), NNG_OPT_SUB_SUBSCRIBE, "", 0));
        Check(::nng_dial(socket_.get(), address.c_str(), nullptr, 0));
    }
    void Receive(Account& account) override {
        while (!account.over()) {
            nng_msg* message = nullptr;
            const int error = ::nng_recvmsg(socket_.get(), &message, 0);
            if (error == NNG_ETIMEDOUT) {
                continue;
            }
            Check(error);
            account.Take(static_cast<const unsigned char*>(::nng_msg_body(message)));
            ::nng_msg_free(message);
        }
    }

private:
    const Socket socket_{::nng_sub0_open};
};

class Nng : public Peer {
public:
    explicit Nng(const Load& load) : load_(load) {}
    std::unique_ptr<Publisher> MakePublisher() const override {
        return std::make_unique<NngPublisher>(load_, address_);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t) const override {
        return std::make_unique<NngSubscriber>(address_);
    }

private:
    const Load load_;
    const ScratchDirectory directory_;
    const std::string address_ = "ipc://" + directory_.path() + "/socket";
};

}  // namespace

std::unique_ptr<Peer> MakeNng(const Load& load) {
    return std::make_unique<Nng>(load);
}

}  // namespace kvo::bench

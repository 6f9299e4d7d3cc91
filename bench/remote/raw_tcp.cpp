// A TCP connection and nothing else.
#include "ends.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kvo::bench {
namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in AddressOf(const std::string& host) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(kPort)));
    if (!host.empty()) {
        ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    }
    return address;
}

void SetNoDelay(int socket) {
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

class TcpSender final : public Sender {
public:
    TcpSender() {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int yes = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        const sockaddr_in address = AddressOf("");
        if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener, 1) != 0) {
            Fail("listening");
        }
        socket_ = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket_ < 0) {
            Fail("accepting");
        }
        SetNoDelay(socket_);
        ::close(listener);
    }
    TcpSender(const TcpSender&) = delete;
    TcpSender& operator=(const TcpSender&) = delete;
    ~TcpSender() override { ::close(socket_); }
    void Send(const unsigned char* payload, std::size_t bytes) override {
        while (bytes > 0) {
            const ssize_t sent = ::send(socket_, payload, bytes, MSG_NOSIGNAL);
            if (sent <= 0) {
                Fail("sending");
            }
            payload += sent;
            bytes -= static_cast<std::size_t>(sent);
        }
    }

private:
    int socket_ = -1;
};

}  // namespace

std::unique_ptr<Sender> SendByTcp(const Link&) {
    return std::make_unique<TcpSender>();
}

void ReceiveByTcp(const Link& link, const Taken& taken) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = AddressOf(link.peer);
    while (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    SetNoDelay(socket);
    std::vector<unsigned char> payload(link.bytes);
    for (std::size_t at = 0;;) {
        const ssize_t got = ::recv(socket, payload.data() + at, payload.size() - at, 0);
        if (got <= 0) {
            break;
        }
        at += static_cast<std::size_t>(got);
        if (at == payload.size()) {
            taken(payload.data());
            at = 0;
        }
    }
    ::close(socket);
    ::pause();  // what was counted is told at the end of the process
}

}  // namespace kvo::bench

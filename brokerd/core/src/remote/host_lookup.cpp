#include "remote/host_lookup.h"

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>

namespace kvo::brokerd {

// A name server may be slow, and the transport resolves names on a thread that all connections
// share. The thread here is detached: getaddrinfo cannot be ended.
std::string LookUpHost(const std::string& host, std::chrono::milliseconds at_most) {
    struct Found {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
        int fault = 0;
        std::string number;
    };
    std::string bare = host;
    if (bare.size() > 2 && bare.front() == '[') {
        bare = bare.substr(1, bare.size() - 2);
    }
    const auto found = std::make_shared<Found>();
    std::thread([found, bare] {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* list = nullptr;
        const int fault = ::getaddrinfo(bare.c_str(), nullptr, &hints, &list);
        std::array<char, NI_MAXHOST> number{};
        bool ipv6 = false;
        if (fault == 0) {
            // Brokers listen at IPv4 addresses, unless they have been told another one.
            const addrinfo* chosen = list;
            while (chosen != nullptr && chosen->ai_family != AF_INET) {
                chosen = chosen->ai_next;
            }
            chosen = chosen != nullptr ? chosen : list;
            ::getnameinfo(chosen->ai_addr, chosen->ai_addrlen, number.data(), number.size(),
                          nullptr, 0, NI_NUMERICHOST);
            ipv6 = chosen->ai_family == AF_INET6;
            ::freeaddrinfo(list);
        }
        const std::lock_guard lock(found->mutex);
        found->done = true;
        found->fault = fault;
        found->number = ipv6 ? "[" + std::string(number.data()) + "]" : number.data();
        found->changed.notify_all();
    }).detach();
    std::unique_lock lock(found->mutex);
    if (!found->changed.wait_for(lock, at_most, [&found] { return found->done; })) {
        throw std::runtime_error("the host " + host + " was not found in time");
    }
    if (found->fault != 0) {
        throw std::runtime_error("the host " + host +
                                 " is unknown: " + ::gai_strerror(found->fault));
    }
    return found->number;
}

}  // namespace kvo::brokerd

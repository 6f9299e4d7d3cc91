#include "broker_scene.h"

#include <array>
#include <cerrno>
#include <iostream>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace kvo::bench {
namespace {

constexpr const char* kStream = "well/behaved";
constexpr const char* kUuid = "well-behaved";

void Expect(const std::string& what, bool right) {
    if (!right) {
        Fail("a wrong answer to " + what);
    }
}

std::string Text(const Footprint& footprint) {
    return std::to_string(footprint.rss_bytes / 1024) + " KiB, " +
           std::to_string(footprint.descriptors) + " descriptors, " +
           std::to_string(footprint.threads) + " threads, " + std::to_string(footprint.files) +
           " files";
}

bool StaysOpen(int file, int flags) {
    std::array<char, 1024> bytes;
    ssize_t got = 0;
    while ((got = ::recv(file, bytes.data(), bytes.size(), flags)) > 0) {
    }
    return got < 0 && errno == EAGAIN;
}

}  // namespace

void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

void Progress::Tell(std::uint64_t done) {
    if (Clock::now() >= next_) {
        next_ = Clock::now() + std::chrono::seconds(3);
        std::cout << what_ << ": " << done << " of " << all_ << std::endl;
    }
}

WellBehaved::WellBehaved(zmq::context_t& context, const std::string& endpoint)
    : client_(context, endpoint, SimulatedClient::NewRoutingId()) {
    Expect("AddPublisher",
           client_.Call<int>("AddPublisher", kStream, 250, 10, 64, 4, false, "") == 1);
    key_ = client_.Call<std::string>("GetPublisherKey", kStream);
}

void WellBehaved::Beat() {
    client_.Do("SendHeartbeat", kStream);
}

void WellBehaved::CheckAnswers() {
    Beat();
    const bool taken = !client_.Call<bool>("IsStreamIdFree", kStream);
    const bool known = client_.Call<std::string>("GetPublisherKey", kStream) == key_;
    const int added = client_.Call<int>("AddSubscriber", kUuid, kStream, "", 250, 10);
    const auto counts = client_.Call<std::vector<std::string>>("GetStreamStatistics", kStream);
    const int removed = client_.Call<int>("RemoveSubscriber", kStream, kUuid);
    const auto unknown = client_.Await(client_.Ask("NoSuchMethod"));
    Expect("IsStreamIdFree", taken);
    Expect("GetPublisherKey", known);
    Expect("AddSubscriber", added == 1);
    Expect("GetStreamStatistics", counts.size() == 7 && counts[1] == "1" && counts[5] == "1");
    Expect("RemoveSubscriber", removed == 1);
    Expect("an unknown method", unknown && !unknown->error.empty());
}

bool WellBehaved::Alone() {
    return client_.Call<std::vector<std::string>>("ListRegisteredStreams") ==
           std::vector<std::string>{kStream};
}

Scene::Scene(const Options& options, const std::vector<std::string>& limits)
    : growth_mib_(options.growth_mib),
      broker_(options.broker, limits),
      client_(context_, broker_.endpoint()),
      alone_(broker_.Look()) {}

std::uint16_t Scene::port() const {
    return static_cast<std::uint16_t>(std::stoul(endpoint().substr(endpoint().rfind(':') + 1)));
}

Footprint Scene::Settle() {
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    for (;;) {
        client_.CheckAnswers();
        const Footprint now = broker_.Look();
        if (client_.Alone() && now.descriptors == alone_.descriptors &&
            now.threads == alone_.threads && now.files == alone_.files) {
            return now;
        }
        if (Clock::now() > deadline) {
            Fail("the broker does not come to rest: " + Text(now) + " instead of " + Text(alone_));
        }
        // /proc tells no events; it has to be looked at again and again.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void Scene::CheckGrowth(const Footprint& before, const Footprint& after) const {
    std::cout << "  before " << Text(before) << "; after " << Text(after) << std::endl;
    if (after.rss_bytes > before.rss_bytes + (growth_mib_ << 20)) {
        Fail("the broker has grown by more than " + std::to_string(growth_mib_) + " MiB");
    }
}

TcpConnection::TcpConnection(std::uint16_t port)
    : file_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience{kPatience.count(), 0};
    ::setsockopt(file_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    ::setsockopt(file_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (::connect(file_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(file_);
        Fail("the broker takes no connections");
    }
}

TcpConnection::~TcpConnection() {
    ::close(file_);
}

void TcpConnection::Send(const std::string& bytes) const {
    static_cast<void>(::send(file_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

bool TcpConnection::Open() const {
    return StaysOpen(file_, MSG_DONTWAIT);
}

void TcpConnection::End() const {
    ::shutdown(file_, SHUT_WR);
    if (StaysOpen(file_, 0)) {
        Fail("the broker keeps a connection that has ended");
    }
}

}  // namespace kvo::bench

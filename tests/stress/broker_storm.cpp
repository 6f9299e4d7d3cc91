// What a broker must bear: messages of every wrong kind, connections that say nothing beside a
// client that floods it, and registrations without end. In the meantime a well-behaved client gets
// the right answers in time, and afterwards the broker uses no more than before.
#include "simulated_client.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <limits>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <random>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace kvo::bench;

struct Options {
    std::uint64_t messages = 1'000'000;
    bool quick = false;
    std::uint64_t seed = 0;
    std::string broker;
    // What the broker's heap may keep for itself: fragments, and queues and tables that have grown
    // to what was in them at once. A leak of 20 bytes with every one of a million messages, or of
    // 170 with every one of 100,000 registrations, goes beyond it.
    std::uint64_t growth_mib = 16;
};

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

// A line now and then, so that a run of minutes does not look like one that hangs.
class Progress {
public:
    Progress(const char* what, std::uint64_t all) : what_(what), all_(all) {}
    void Tell(std::uint64_t done) {
        if (Clock::now() >= next_) {
            next_ = Clock::now() + std::chrono::seconds(3);
            std::cout << what_ << ": " << done << " of " << all_ << std::endl;
        }
    }

private:
    const char* const what_;
    const std::uint64_t all_;
    Clock::time_point next_ = Clock::now() + std::chrono::seconds(3);
};

// A publisher and at times a subscriber that do everything right.
class WellBehaved {
public:
    WellBehaved(zmq::context_t& context, const std::string& endpoint)
        : client_(context, endpoint, SimulatedClient::NewRoutingId()) {
        Expect("AddPublisher",
               client_.Call<int>("AddPublisher", kStream, 250, 10, 64, 4, false, "") == 1);
        key_ = client_.Call<std::string>("GetPublisherKey", kStream);
    }

    void Beat() { client_.Do("SendHeartbeat", kStream); }

    void CheckAnswers() {
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

    // Whether all other registrations have ended.
    bool Alone() {
        return client_.Call<std::vector<std::string>>("ListRegisteredStreams") ==
               std::vector<std::string>{kStream};
    }

private:
    static void Expect(const std::string& what, bool right) {
        if (!right) {
            Fail("a wrong answer to " + what);
        }
    }
    static constexpr const char* kStream = "well/behaved";
    static constexpr const char* kUuid = "well-behaved";
    SimulatedClient client_;
    std::string key_;
};

// One part of the test: a broker with a well-behaved client.
class Scene {
public:
    Scene(const Options& options, const std::vector<std::string>& limits)
        : growth_mib_(options.growth_mib),
          broker_(options.broker, limits),
          client_(context_, broker_.endpoint()),
          alone_(broker_.Look()) {}

    WellBehaved& client() { return client_; }
    zmq::context_t& context() { return context_; }
    const std::string& endpoint() const { return broker_.endpoint(); }
    std::uint16_t port() const {
        return static_cast<std::uint16_t>(std::stoul(endpoint().substr(endpoint().rfind(':') + 1)));
    }

    // Waits until the broker has forgotten all others, and returns what it uses then.
    Footprint Settle() {
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        for (;;) {
            client_.CheckAnswers();
            const Footprint now = broker_.Look();
            if (client_.Alone() && now.descriptors == alone_.descriptors &&
                now.threads == alone_.threads && now.files == alone_.files) {
                return now;
            }
            if (Clock::now() > deadline) {
                Fail("the broker does not come to rest: " + Text(now) + " instead of " +
                     Text(alone_));
            }
            // /proc tells no events; it has to be looked at again and again.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    void CheckGrowth(const Footprint& before, const Footprint& after) const {
        std::cout << "  before " << Text(before) << "; after " << Text(after) << std::endl;
        if (after.rss_bytes > before.rss_bytes + (growth_mib_ << 20)) {
            Fail("the broker has grown by more than " + std::to_string(growth_mib_) + " MiB");
        }
    }
    void End() { broker_.Stop(); }

private:
    static std::string Text(const Footprint& footprint) {
        return std::to_string(footprint.rss_bytes / 1024) + " KiB, " +
               std::to_string(footprint.descriptors) + " descriptors, " +
               std::to_string(footprint.threads) + " threads, " + std::to_string(footprint.files) +
               " files";
    }

    const std::uint64_t growth_mib_;
    BrokerProcess broker_;
    zmq::context_t context_;
    WellBehaved client_;
    const Footprint alone_;
};

using Frames = std::vector<std::string>;

// Every operation with the kinds of its parameters: stream or uuid, usually empty text, int32,
// int64, bool.
using Operation = std::pair<std::string_view, std::string_view>;
constexpr std::array<Operation, 22> kOperations{
    {{"SendHeartbeat", "s"},        {"AddPublisher", "siiiibe"},  {"RemovePublisher", "s"},
     {"NotifyNewData", "s"},        {"AddSubscriber", "sseii"},   {"RemoveSubscriber", "ss"},
     {"GetPublisherKey", "s"},      {"GetNotificationPort", "s"}, {"GetStreamStatistics", "s"},
     {"GetHeartbeatPeriod", ""},    {"GetHeartbeatTimeout", ""},  {"GetShmFilePath", "s"},
     {"GetExistingShmPath", "s"},   {"IsStreamIdFree", "s"},      {"HasLocalPublisher", "s"},
     {"HasRemotePublisher", "es"},  {"ReportDataWritten", "sil"}, {"GetMaxBufferSize", "i"},
     {"ListRegisteredStreams", ""}, {"ListConnectedBrokers", ""}, {"GetCapabilities", ""},
     {"GetRefusalReason", "s"}}};

// Draws messages: a few right, most of them wrong somewhere.
class Mischief {
public:
    explicit Mischief(std::uint64_t seed) : random_(seed) {}

    std::uint64_t Draw(std::uint64_t below) { return random_() % below; }
    bool OneIn(std::uint64_t chances) { return Draw(chances) == 0; }

    std::string Bytes(std::uint64_t fewer_than) {
        std::string bytes(Draw(fewer_than), '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random_());
        }
        return bytes;
    }

    Frames Request() {
        Frames frames{std::string(kBrokerPath), Call()};
        if (OneIn(16)) {
            frames.resize(Draw(6) + 1, OneIn(2) ? "" : Bytes(40));
        }
        if (OneIn(16)) {
            frames[Draw(frames.size())] = Bytes(OneIn(20) ? 9000 : 60);
        }
        if (OneIn(2000)) {
            frames.back().resize(70'000);  // too large: ends the connection
        }
        if (!OneIn(3)) {
            // Rather often in the call than in the path.
            Mutate(frames[OneIn(8) ? 0 : frames.size() - 1]);
        }
        return frames;
    }

    // To the notifications' address: begins or ends a subscription, or is neither.
    std::string Subscription() {
        std::string text = std::string(1, static_cast<char>(Draw(2))) + "/" + Name() + '\0';
        if (OneIn(3)) {
            Mutate(text);
        }
        return text;
    }

    void Mutate(std::string& bytes) {
        // Heads of arrays, maps, texts, binaries and extensions that are longer than any message.
        static constexpr std::array<std::string_view, 5> kHuge{
            "\xdd\xff\xff\xff\xff", "\xdf\xff\xff\xff\xff", "\xdb\x7f\xff\xff\xff",
            "\xc6\xff\xff\xff\xf0", "\xc9\xff\xff\xff\xff"};
        const auto place = bytes.empty() ? 0 : Draw(bytes.size());
        const auto way = Draw(7);
        if (way == 0) {
            bytes.resize(place);
        } else if (way == 1) {
            bytes += Bytes(40);
        } else if (way == 2) {
            bytes.insert(place, kHuge[Draw(kHuge.size())]);
        } else if (way == 3) {
            bytes.insert(place, std::string(Draw(OneIn(50) ? 60'000 : 40), '\x91'));  // nested
        } else if (way == 4) {
            bytes.insert(place, bytes.substr(Draw(bytes.size() + 1), Draw(40)));
        } else if (!bytes.empty()) {
            bytes[place] = static_cast<char>(bytes[place] ^ (1 << Draw(8)));
        }
        if (OneIn(2)) {
            Mutate(bytes);
        }
    }

private:
    std::string Call() {
        const auto& [method, kinds] = kOperations[Draw(kOperations.size())];
        msgpack::sbuffer buffer;
        msgpack::packer<msgpack::sbuffer> packer(buffer);
        if (OneIn(4)) {
            packer.pack_array(3).pack(2);
        } else {
            packer.pack_array(4).pack(0).pack(static_cast<std::uint32_t>(random_()));
        }
        packer.pack(method);
        const std::string_view params = kinds.substr(!kinds.empty() && OneIn(30) ? 1 : 0);
        packer.pack_array(static_cast<std::uint32_t>(params.size()));
        for (const char kind : params) {
            PackParam(packer, OneIn(25) ? "seilbn"[Draw(6)] : kind);
        }
        return {buffer.data(), buffer.size()};
    }

    void PackParam(msgpack::packer<msgpack::sbuffer>& packer, char kind) {
        if (kind == 's' || kind == 'e') {
            packer.pack(kind == 's' || OneIn(8) ? Name() : std::string());
        } else if (kind == 'i') {
            packer.pack(Number<std::int32_t>());
        } else if (kind == 'l') {
            packer.pack(Number<std::int64_t>());
        } else if (kind == 'b') {
            packer.pack(OneIn(2));
        } else {
            packer.pack_nil();
        }
    }

    std::string Name() { return OneIn(30) ? Bytes(400) : "storm/" + std::to_string(Draw(100)); }

    template <class T>
    T Number() {
        const std::array<T, 4> extremes{std::numeric_limits<T>::min(),
                                        std::numeric_limits<T>::max(), -1, 0};
        return OneIn(10) ? extremes[Draw(extremes.size())] : static_cast<T>(Draw(100));
    }

    std::mt19937_64 random_;
};

class TcpConnection {
public:
    explicit TcpConnection(std::uint16_t port)
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
    TcpConnection(const TcpConnection&) = delete;
    TcpConnection& operator=(const TcpConnection&) = delete;
    ~TcpConnection() { ::close(file_); }

    // What a broker that has already closed the connection does not take is lost.
    void Send(const std::string& bytes) const {
        static_cast<void>(::send(file_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    // Takes what has come. False: the broker has closed the connection.
    bool Open() const { return StaysOpen(MSG_DONTWAIT); }
    // Says no more and waits until the broker has closed the connection too.
    void End() const {
        ::shutdown(file_, SHUT_WR);
        if (StaysOpen(0)) {
            Fail("the broker keeps a connection that has ended");
        }
    }

private:
    bool StaysOpen(int flags) const {
        std::array<char, 1024> bytes;
        ssize_t got = 0;
        while ((got = ::recv(file_, bytes.data(), bytes.size(), flags)) > 0) {
        }
        return got < 0 && errno == EAGAIN;
    }

    const int file_;
};

// One of the transport's frames. @param flags 1: more follow, 4: a command.
std::string TransportFrame(unsigned flags, const std::string& body) {
    const bool is_long = body.size() > 255;
    std::string frame(1, static_cast<char>(is_long ? flags | 2 : flags));
    for (int shift = is_long ? 56 : 0; shift >= 0; shift -= 8) {
        frame += static_cast<char>(body.size() >> shift);
    }
    return frame + body;
}

// What a client sends to introduce itself.
std::string Introduction(const std::string& socket_type) {
    std::string greeting("\xff\0\0\0\0\0\0\0\1\x7f\3\0NULL", 16);
    greeting.resize(64);
    const std::string property = "\x0bSocket-Type" + std::string(3, '\0') +
                                 static_cast<char>(socket_type.size()) + socket_type;
    return greeting + TransportFrame(4, "\5READY" + property);
}

// Connections of several kinds that send mischief.
class Storm {
public:
    Storm(Scene& scene, std::uint64_t seed) : scene_(scene), mischief_(seed) {
        SimulatedClient client(scene.context(), scene.endpoint(), "");
        notification_port_ = client.Call<std::uint16_t>("GetNotificationPort", "storm/0");
    }

    void Send(Progress& progress, std::uint64_t messages) {
        const std::uint64_t end = sent_ + messages;
        auto next_check = Clock::now();
        while (sent_ < end) {
            SendSome();
            progress.Tell(sent_);
            if (Clock::now() >= next_check) {
                scene_.client().CheckAnswers();
                next_check = Clock::now() + std::chrono::milliseconds(2);
            }
        }
        for (auto& connection : requests_) {
            Replace(connection, nullptr);
        }
    }

    void CheckMixture() const {
        std::cout << "  " << results_ << " results, " << errors_ << " errors" << std::endl;
        if (results_ == 0 || errors_ == 0) {
            Fail("the messages were all right or all wrong: this tested nothing");
        }
    }

private:
    using Connection = std::unique_ptr<SimulatedClient>;

    void SendSome() {
        if (mischief_.OneIn(100)) {
            SendRaw();
            return;
        }
        const std::size_t index = mischief_.Draw(requests_.size());
        Connection& connection = requests_[index];
        if (connection == nullptr || mischief_.OneIn(2000)) {
            Replace(connection, std::make_unique<SimulatedClient>(scene_.context(),
                                                                  scene_.endpoint(), IdFor(index)));
        }
        connection->Send(mischief_.Request());
        ++sent_;
        while (const auto answer = connection->Take()) {
            ++(answer->error.empty() ? results_ : errors_);
        }
    }

    std::string IdFor(std::size_t index) {
        return index == 0   ? ""
               : index == 1 ? "x" + mischief_.Bytes(200)
                            : SimulatedClient::NewRoutingId();
    }

    // Before it goes it proves that the broker has got through all that it sent.
    void Replace(Connection& connection, Connection next) {
        // Asked again, since a message that is too large takes those around it along.
        bool answered = connection == nullptr;
        for (int i = 0; i < 20 && !answered; ++i) {
            const std::uint32_t id = connection->Ask("GetHeartbeatPeriod");
            answered = connection->Await(id, std::chrono::milliseconds(500)).has_value();
        }
        if (!answered) {
            Fail("no answer on a connection that sent malformed messages");
        }
        connection = std::move(next);
    }

    // To either address, half of it wrong in the transport's own bytes. Takes no answers meanwhile.
    void SendRaw() {
        const bool request = mischief_.OneIn(2);
        std::string bytes = Introduction(request ? "DEALER" : "SUB");
        for (std::uint64_t i = mischief_.Draw(mischief_.OneIn(50) ? 2000 : 32); i > 0;
             --i, ++sent_) {
            const Frames frames = request ? mischief_.Request() : Frames{mischief_.Subscription()};
            for (std::size_t frame = 0; frame < frames.size(); ++frame) {
                bytes += TransportFrame(frame + 1 < frames.size() ? 1 : 0, frames[frame]);
            }
        }
        if (mischief_.OneIn(2)) {
            mischief_.Mutate(bytes);
        }
        const TcpConnection connection(request ? scene_.port() : notification_port_);
        connection.Send(bytes);
        connection.End();
    }

    Scene& scene_;
    Mischief mischief_;
    std::uint16_t notification_port_ = 0;
    std::array<Connection, 3> requests_;
    std::uint64_t sent_ = 0;
    std::uint64_t results_ = 0;
    std::uint64_t errors_ = 0;
};

void BearMalformedMessages(const Options& options) {
    // Without a limit of requests, so that each one is looked at.
    Scene scene(options, {"--log-level", "error", "--request-rate", "0", "--heartbeat-timeout", "3",
                          "--max-streams", "64", "--memory-budget", "256MiB"});
    Storm storm(scene, options.seed);
    const std::uint64_t warm_up = std::max<std::uint64_t>(10'000, options.messages / 5);
    Progress progress("malformed messages", warm_up + options.messages);
    storm.Send(progress, warm_up);
    const Footprint before = scene.Settle();
    storm.Send(progress, options.messages);
    storm.CheckMixture();
    scene.CheckGrowth(before, scene.Settle());
    scene.End();
}

std::uint64_t Flood(SimulatedClient& client, const std::stop_token& stop) {
    std::uint64_t requests = 0;
    for (; !stop.stop_requested(); ++requests) {
        client.Ask("GetStreamStatistics", "well/behaved");
        while (client.Take()) {
        }
    }
    return requests;
}

void BearSilenceAndFlood(const Options& options) {
    const std::size_t silent = options.quick ? 200 : 1000;
    const std::chrono::seconds duration(options.quick ? 3 : 10);
    const double most_ms = options.quick ? 500 : 50;
    AllowDescriptors(silent + 256);
    Scene scene(options, {"--log-level", "error"});
    std::vector<double> times_ms;
    std::uint64_t connected = 0;
    std::uint64_t flood = 0;
    {
        const auto connect = [&] {
            ++connected;
            return std::make_unique<TcpConnection>(scene.port());
        };
        std::vector<std::unique_ptr<TcpConnection>> connections(silent);
        std::generate(connections.begin(), connections.end(), connect);
        SimulatedClient flooding(scene.context(), scene.endpoint(),
                                 SimulatedClient::NewRoutingId());
        std::stop_source stop;
        auto flooded = std::async(std::launch::async, Flood, std::ref(flooding), stop.get_token());
        struct StopAtEnd {
            std::stop_source& stop;
            ~StopAtEnd() { stop.request_stop(); }
        } stop_at_end{stop};
        Progress progress("silent connections, seconds",
                          static_cast<std::uint64_t>(duration.count()));
        const auto begin = Clock::now();
        for (auto due = begin; due < begin + duration; due += std::chrono::milliseconds(2)) {
            // One that the broker has closed makes room for the next.
            auto& connection = connections[times_ms.size() % silent];
            if (!connection->Open()) {
                connection = connect();
            }
            std::this_thread::sleep_until(due);
            const auto asked = Clock::now();
            scene.client().Beat();
            times_ms.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - asked).count());
            progress.Tell(static_cast<std::uint64_t>((asked - begin) / std::chrono::seconds(1)));
        }
        stop.request_stop();
        flood = flooded.get();
    }
    scene.Settle();
    scene.End();
    const double p99_ms = Percentile(times_ms, 0.99);
    std::cout << "  " << connected << " silent connections, " << flood << " requests of the flood; "
              << times_ms.size() << " heartbeats answered, p50 " << Percentile(times_ms, 0.5)
              << " ms, p99 " << p99_ms << " ms, max " << times_ms.back() << " ms" << std::endl;
    if (p99_ms > most_ms) {
        Fail("the p99 of a request's time is above " + std::to_string(most_ms) + " ms");
    }
}

void BearRegistrations(const Options& options) {
    const std::uint64_t rounds = options.quick ? 2000 : 100'000;
    constexpr std::uint64_t kWarmUp = 500;
    Scene scene(options, {"--log-level", "error", "--request-rate", "0"});
    std::uint64_t round = 0;
    Progress progress("registrations", kWarmUp + rounds);
    const auto run = [&](std::uint64_t end) {
        SimulatedClient client(scene.context(), scene.endpoint(), SimulatedClient::NewRoutingId());
        for (; round < end; ++round) {
            const std::string uuid = "subscriber-" + std::to_string(round);
            const bool right =
                client.Call<int>("AddPublisher", "turn", 250, 10, 64, 4, false, "") == 1 &&
                client.Call<int>("AddSubscriber", uuid, "turn", "", 250, 10) == 1 &&
                client.Call<int>("RemoveSubscriber", "turn", uuid) == 1 &&
                client.Call<int>("RemovePublisher", "turn") == 1;
            if (!right) {
                Fail("a registration or its end was refused");
            }
            scene.client().Beat();
            progress.Tell(round);
        }
    };
    run(kWarmUp);
    const Footprint before = scene.Settle();
    run(kWarmUp + rounds);
    scene.CheckGrowth(before, scene.Settle());
    scene.End();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Sends a broker of its own what it has to bear. Exit code 1: it did not bear it.");
    Options options;
    options.seed = std::random_device()();
    app.add_option("--messages", options.messages, "Malformed messages")->capture_default_str();
    app.add_flag("--quick", options.quick, "50,000 messages, and less of everything else");
    app.add_option("--seed", options.seed, "Of the random choices; default: a new one");
    app.add_option("--broker", options.broker, "The broker; default: kvo-broker beside this");
    app.add_option("--growth", options.growth_mib, "MiB that the broker may grow by")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    if (options.quick) {
        options.messages = 50'000;
    }
    try {
        std::cout << "seed " << options.seed << std::endl;
        BearMalformedMessages(options);
        BearSilenceAndFlood(options);
        BearRegistrations(options);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kvo-broker-storm (seed " << options.seed << "): " << error.what()
                  << std::endl;
        return 1;
    }
}

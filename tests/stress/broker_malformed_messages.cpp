#include "broker_scene.h"
#include "mischief.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <string>

namespace kvo::bench {
namespace {

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

}  // namespace

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

}  // namespace kvo::bench

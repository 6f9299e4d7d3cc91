#pragma once

#include "simulated_client.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What the parts of kvo-broker-storm share.
namespace kvo::bench {

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

// What a broker must bear. Each throws std::runtime_error saying what it did not.
void BearMalformedMessages(const Options& options);
void BearSilenceAndFlood(const Options& options);
void BearRegistrations(const Options& options);

[[noreturn]] void Fail(const std::string& what);

/// A line now and then, so that a run of minutes does not look like one that hangs.
class Progress {
public:
    Progress(const char* what, std::uint64_t all) : what_(what), all_(all) {}
    void Tell(std::uint64_t done);

private:
    const char* const what_;
    const std::uint64_t all_;
    Clock::time_point next_ = Clock::now() + std::chrono::seconds(3);
};

/// A publisher and at times a subscriber that do everything right.
class WellBehaved {
public:
    WellBehaved(zmq::context_t& context, const std::string& endpoint);

    void Beat();
    void CheckAnswers();
    /// Whether all other registrations have ended.
    bool Alone();

private:
    SimulatedClient client_;
    std::string key_;
};

/// One part of the test: a broker with a well-behaved client.
class Scene {
public:
    Scene(const Options& options, const std::vector<std::string>& limits);

    WellBehaved& client() { return client_; }
    zmq::context_t& context() { return context_; }
    const std::string& endpoint() const { return broker_.endpoint(); }
    std::uint16_t port() const;

    /// Waits until the broker has forgotten all others, and returns what it uses then.
    Footprint Settle();
    void CheckGrowth(const Footprint& before, const Footprint& after) const;
    void End() { broker_.Stop(); }

private:
    const std::uint64_t growth_mib_;
    BrokerProcess broker_;
    zmq::context_t context_;
    WellBehaved client_;
    const Footprint alone_;
};

class TcpConnection {
public:
    explicit TcpConnection(std::uint16_t port);
    TcpConnection(const TcpConnection&) = delete;
    TcpConnection& operator=(const TcpConnection&) = delete;
    ~TcpConnection();

    /// What a broker that has already closed the connection does not take is lost.
    void Send(const std::string& bytes) const;
    /// Takes what has come. False: the broker has closed the connection.
    bool Open() const;
    /// Says no more and waits until the broker has closed the connection too.
    void End() const;

private:
    const int file_;
};

}  // namespace kvo::bench

#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <sys/types.h>

namespace kvo::bench {

class Account;

/// What one measurement lets a system carry.
struct Load {
    std::size_t bytes = 64;     // of each sample
    std::size_t buffers = 256;  // sample buffers of the system, whatever it calls them
    std::size_t readers = 1;
    bool polled = false;  // readers look for samples all the time; else they are woken
};

/// The writing end of a system. Threads: one.
class Publisher {
public:
    Publisher() = default;
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    virtual ~Publisher() = default;

    /// Hands over one sample of the load's size, which is copied. Where a system tells its readers
    /// of a sample in a call of its own, Tell() is that call.
    virtual void Write(const unsigned char* payload) = 0;
    virtual void Tell() {}
};

/// The reading end of a system. Threads: one; samples may be taken on one other.
class Subscriber {
public:
    Subscriber() = default;
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    virtual ~Subscriber() = default;

    /// Gives every sample to the account until that is over.
    virtual void Receive(Account& account) = 0;
};

/// A system under measurement, with its daemon where it has one. Made for one measurement, before
/// the processes of the two ends are forked: what it holds then is there in all of them, so it may
/// neither start threads nor touch the system's library.
class Peer {
public:
    Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    virtual ~Peer() = default;

    /// Each throws std::exception saying what failed.
    virtual std::unique_ptr<Publisher> MakePublisher() const = 0;
    virtual std::unique_ptr<Subscriber> MakeSubscriber(std::size_t index) const = 0;

    /// Process of the daemon; 0: the system has none.
    virtual pid_t daemon() const { return 0; }
};

}  // namespace kvo::bench

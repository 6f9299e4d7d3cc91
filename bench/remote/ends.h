#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kvo::bench {

/// The two ends of a system, each in a process of its own on a host of its own.
class Sender {
public:
    virtual ~Sender() = default;
    virtual void Send(const unsigned char* payload, std::size_t bytes) = 0;
};

/// Gives each payload to the function, until the process is ended.
using Taken = std::function<void(const unsigned char* payload)>;

struct Link {
    std::string peer;   // address of the other host
    std::string local;  // URI of the own broker
    std::size_t bytes;  // of each sample
    int buffers;        // samples that a system may keep
};

std::unique_ptr<Sender> SendByKvo(const Link& link);
void ReceiveByKvo(const Link& link, const Taken& taken);
std::unique_ptr<Sender> SendByDds(const Link& link);
void ReceiveByDds(const Link& link, const Taken& taken);
std::unique_ptr<Sender> SendByZeroMq(const Link& link);
void ReceiveByZeroMq(const Link& link, const Taken& taken);
std::unique_ptr<Sender> SendByTcp(const Link& link);
void ReceiveByTcp(const Link& link, const Taken& taken);

inline constexpr const char* kPort = "7777";  // of those that choose one

}  // namespace kvo::bench

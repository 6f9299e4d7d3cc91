#pragma once

#include <msgpack.hpp>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kvo::bench {

using Frames = std::vector<std::string>;

/// Draws messages: a few right, most of them wrong somewhere.
class Mischief {
public:
    explicit Mischief(std::uint64_t seed) : random_(seed) {}

    std::uint64_t Draw(std::uint64_t below) { return random_() % below; }
    bool OneIn(std::uint64_t chances) { return Draw(chances) == 0; }
    std::string Bytes(std::uint64_t fewer_than);

    Frames Request();
    /// To the notifications' address: begins or ends a subscription, or is neither.
    std::string Subscription();
    void Mutate(std::string& bytes);

private:
    std::string Call();
    void PackParam(msgpack::packer<msgpack::sbuffer>& packer, char kind);
    std::string Name();

    std::mt19937_64 random_;
};

}  // namespace kvo::bench

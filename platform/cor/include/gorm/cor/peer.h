#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace gorm::cor {

/// A process of this host at the other end of the Unix socket, as the kernel describes it.
struct LocalPeer {
    std::uint32_t user = 0;   // of its effective user when it connected
    std::uint32_t group = 0;  // its effective group
    std::int32_t process = 0;
};

/// A peer over TCP without keys.
struct AnonymousPeer {
    bool this_host = false;  // only this host can reach the address that is served
};

/// A peer that has the secret key to this public one.
struct KeyPeer {
    std::string public_key;  // Z85, 40 characters
};

using Peer = std::variant<AnonymousPeer, LocalPeer, KeyPeer>;

}  // namespace gorm::cor

#pragma once

#include "kvo/memory/process_lock.h"

#include <cstdint>

// How a process's name is packed into the words of the shared files.
namespace kvo {

constexpr std::uint64_t PackOwner(const ProcessTag& tag) {
    return tag.nonce << 16 | tag.number;
}
constexpr ProcessTag UnpackOwner(std::uint64_t owner) {
    return {static_cast<std::uint16_t>(owner), owner >> 16};
}

// The role's word has room for the low half of the nonce only.
constexpr std::uint64_t PackRole(const ProcessTag& tag, std::uint16_t instance) {
    return std::uint64_t{tag.number} << 48 | std::uint64_t{instance} << 32 |
           static_cast<std::uint32_t>(tag.nonce);
}
constexpr std::uint16_t RoleNumber(std::uint64_t role) {
    return static_cast<std::uint16_t>(role >> 48);
}
constexpr std::uint32_t RoleNonce(std::uint64_t role) {
    return static_cast<std::uint32_t>(role);
}

}  // namespace kvo

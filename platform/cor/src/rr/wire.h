#pragma once

#include <msgpack.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The messages of request/reply: MessagePack-RPC, with every size limited before anything is
// allocated for it. Any thread.
namespace gorm::cor::rr {

std::string EncodeRequest(std::uint32_t id, std::string_view method, std::string_view params);
std::string EncodeNotification(std::string_view method, std::string_view params);
std::string EncodeResult(std::uint32_t id, std::string_view packed_result);
std::string EncodeError(std::uint32_t id, std::string_view text);

/// A request, or with no id a notification. Refers to the bytes it was decoded from.
struct Call {
    std::optional<std::uint32_t> id;
    std::string_view method;
    msgpack::object_handle message;
    const msgpack::object& params() const;
};

struct Reply {
    std::uint32_t id = 0;
    bool failed = false;
    std::string content;  // the packed result, or the text of the error
};

/// None: the bytes are no such message.
[[nodiscard]] std::optional<Call> DecodeCall(std::string_view bytes);
[[nodiscard]] std::optional<Reply> DecodeReply(std::string_view bytes);

}  // namespace gorm::cor::rr

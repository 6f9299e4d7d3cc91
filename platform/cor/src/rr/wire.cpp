#include "rr/wire.h"

#include "transport/bounds.h"

#include <cstddef>
#include <limits>

namespace gorm::cor::rr {
namespace {

// Types of MessagePack-RPC messages.
constexpr std::uint64_t kRequest = 0;
constexpr std::uint64_t kResponse = 1;
constexpr std::uint64_t kNotification = 2;

class Encoder {
public:
    Encoder(std::uint32_t elements, std::uint64_t type) : packer_(buffer_) {
        packer_.pack_array(elements);
        packer_.pack(type);
    }
    Encoder& Number(std::uint32_t value) {
        packer_.pack(value);
        return *this;
    }
    Encoder& Text(std::string_view text) {
        packer_.pack_str(static_cast<std::uint32_t>(text.size()));
        packer_.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
        return *this;
    }
    Encoder& Nil() {
        packer_.pack_nil();
        return *this;
    }
    std::string Finish(std::string_view packed = {}) {
        std::string bytes;
        bytes.reserve(buffer_.size() + packed.size());
        return bytes.append(buffer_.data(), buffer_.size()).append(packed);
    }

private:
    msgpack::sbuffer buffer_;
    msgpack::packer<msgpack::sbuffer> packer_;
};

bool ReferToBytes(msgpack::type::object_type, std::size_t, void*) {
    return true;
}

// The one array that the bytes consist of; strings in it refer to the bytes.
std::optional<msgpack::object_handle> DecodeArray(std::string_view bytes, std::size_t elements) {
    try {
        std::size_t offset = 0;
        bool referenced = false;
        msgpack::object_handle handle = msgpack::unpack(
            bytes.data(), bytes.size(), offset, referenced, &ReferToBytes, nullptr,
            msgpack::unpack_limit(elements, elements, bytes.size(), bytes.size(), 0, kMaxDepth));
        if (offset != bytes.size() || handle.get().type != msgpack::type::ARRAY) {
            return std::nullopt;
        }
        return handle;
    } catch (const msgpack::unpack_error&) {
        return std::nullopt;
    }
}

bool IsNumber(const msgpack::object& object, std::uint64_t value) {
    return object.type == msgpack::type::POSITIVE_INTEGER && object.via.u64 == value;
}

std::optional<std::uint32_t> MessageId(const msgpack::object& object) {
    if (object.type != msgpack::type::POSITIVE_INTEGER ||
        object.via.u64 > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(object.via.u64);
}

std::string_view TextOf(const msgpack::object& object) {
    return {object.via.str.ptr, object.via.str.size};
}

}  // namespace

std::string EncodeRequest(std::uint32_t id, std::string_view method, std::string_view params) {
    return Encoder(4, kRequest).Number(id).Text(method).Finish(params);
}

std::string EncodeNotification(std::string_view method, std::string_view params) {
    return Encoder(3, kNotification).Text(method).Finish(params);
}

std::string EncodeResult(std::uint32_t id, std::string_view packed_result) {
    return Encoder(4, kResponse).Number(id).Nil().Finish(packed_result);
}

std::string EncodeError(std::uint32_t id, std::string_view text) {
    return Encoder(4, kResponse).Number(id).Text(text).Nil().Finish();
}

const msgpack::object& Call::params() const {
    const msgpack::object_array& parts = message.get().via.array;
    return parts.ptr[parts.size - 1];
}

std::optional<Call> DecodeCall(std::string_view bytes) {
    std::optional<msgpack::object_handle> message = DecodeArray(bytes, kMaxRequestElements);
    if (!message) {
        return std::nullopt;
    }
    Call call;
    const msgpack::object_array& parts = message->get().via.array;
    const msgpack::object* method = nullptr;
    if (parts.size == 4 && IsNumber(parts.ptr[0], kRequest)) {
        call.id = MessageId(parts.ptr[1]);
        if (!call.id) {
            return std::nullopt;
        }
        method = &parts.ptr[2];
    } else if (parts.size == 3 && IsNumber(parts.ptr[0], kNotification)) {
        method = &parts.ptr[1];
    }
    if (method == nullptr || method->type != msgpack::type::STR) {
        return std::nullopt;
    }
    call.method = TextOf(*method);
    call.message = std::move(*message);
    return call;
}

std::optional<Reply> DecodeReply(std::string_view bytes) {
    const std::optional<msgpack::object_handle> message = DecodeArray(bytes, kMaxReplyElements);
    if (!message) {
        return std::nullopt;
    }
    const msgpack::object_array& parts = message->get().via.array;
    if (parts.size != 4 || !IsNumber(parts.ptr[0], kResponse)) {
        return std::nullopt;
    }
    const std::optional<std::uint32_t> id = MessageId(parts.ptr[1]);
    const msgpack::object& error = parts.ptr[2];
    if (!id) {
        return std::nullopt;
    }
    if (error.type == msgpack::type::STR) {
        return Reply{*id, true, std::string(TextOf(error))};
    }
    if (!error.is_nil()) {
        return Reply{*id, true, "an error that is no text"};
    }
    msgpack::sbuffer result;
    msgpack::pack(result, parts.ptr[3]);
    return Reply{*id, false, std::string(result.data(), result.size())};
}

}  // namespace gorm::cor::rr

#pragma once

#include "gorm/cor/errors.h"

#include <msgpack.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

/// How calls are packed: for the stubs and services of interfaces. Any thread.
///
/// A result may be a struct with a static ForEachField(self, take), which hands each field to
/// take(name, field): it travels as a map. Unknown keys are ignored, fields without a key keep
/// their defaults.
namespace gorm::cor::rr::detail {

struct IgnoreField {
    template <class Field>
    void operator()(const char*, Field&) const {}
};

template <class T, class = void>
constexpr bool kHasFields = false;
template <class T>
constexpr bool
    kHasFields<T, std::void_t<decltype(T::ForEachField(std::declval<T&>(), IgnoreField{}))>> = true;

}  // namespace gorm::cor::rr::detail

template <class T>
struct msgpack::adaptor::pack<T, std::enable_if_t<gorm::cor::rr::detail::kHasFields<T>>> {
    template <class Stream>
    msgpack::packer<Stream>& operator()(msgpack::packer<Stream>& out, const T& value) const {
        std::uint32_t fields = 0;
        T::ForEachField(value, [&](const char*, const auto&) { ++fields; });
        out.pack_map(fields);
        T::ForEachField(value, [&](const char* name, const auto& field) {
            out.pack(name);
            out.pack(field);
        });
        return out;
    }
};

template <class T>
struct msgpack::adaptor::convert<T, std::enable_if_t<gorm::cor::rr::detail::kHasFields<T>>> {
    const msgpack::object& operator()(const msgpack::object& from, T& value) const {
        if (from.type != msgpack::type::MAP) {
            throw msgpack::type_error();
        }
        for (std::uint32_t i = 0; i < from.via.map.size; ++i) {
            const msgpack::object_kv& entry = from.via.map.ptr[i];
            const auto key = entry.key.as<std::string>();
            T::ForEachField(value, [&](const char* name, auto& field) {
                if (key == name) {
                    entry.val.convert(field);
                }
            });
        }
        return from;
    }
};

namespace gorm::cor::rr {

/// One packed array with the arguments of a call.
template <class... A>
std::string PackParams(const A&... arguments) {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_array(static_cast<std::uint32_t>(sizeof...(A)));
    (packer.pack(arguments), ...);
    return std::string(buffer.data(), buffer.size());
}

template <class R>
std::string PackResult(const R& result) {
    msgpack::sbuffer buffer;
    msgpack::pack(buffer, result);
    return std::string(buffer.data(), buffer.size());
}

/// The result of an operation that has none.
inline std::string PackNil() {
    return "\xc0";
}

/// The result of a call; throws RemoteError naming the method when it is of another type or does
/// not fit R. R may be void: then any result is taken.
template <class R>
R UnpackResult(std::string_view method, std::string_view packed) {
    if constexpr (!std::is_void_v<R>) {
        const auto refuse = [method](const char* reason) {
            return RemoteError(std::string(method) + ": the answer " + reason);
        };
        try {
            std::size_t offset = 0;
            const msgpack::object_handle handle =
                msgpack::unpack(packed.data(), packed.size(), offset);
            if (offset != packed.size()) {
                throw refuse("is followed by other bytes");
            }
            return handle.get().template as<R>();
        } catch (const msgpack::type_error&) {
            throw refuse("is of the wrong type");
        } catch (const msgpack::unpack_error&) {
            throw refuse("is not MessagePack");
        }
    } else {
        static_cast<void>(method);
        static_cast<void>(packed);
    }
}

namespace detail {

template <class T>
T UnpackParam(std::string_view method, const msgpack::object& param, std::size_t index) {
    try {
        return param.as<T>();
    } catch (const msgpack::type_error&) {
        throw Error(std::string(method) + ": parameter " + std::to_string(index + 1) +
                    " is of the wrong type");
    }
}

template <class... A, std::size_t... Index>
std::tuple<A...> UnpackParams([[maybe_unused]] std::string_view method,
                              [[maybe_unused]] const msgpack::object& params,
                              std::index_sequence<Index...>) {
    return std::tuple<A...>{UnpackParam<A>(method, params.via.array.ptr[Index], Index)...};
}

}  // namespace detail

/// The typed arguments of a call. Throws Error naming the method and what is wrong: not an array,
/// another number of parameters, a wrong type, an integer that does not fit.
template <class... A>
std::tuple<A...> UnpackParams(std::string_view method, const msgpack::object& params) {
    if (params.type != msgpack::type::ARRAY) {
        throw Error(std::string(method) + ": the parameters are no array");
    }
    if (params.via.array.size != sizeof...(A)) {
        throw Error(std::string(method) + ": " + std::to_string(sizeof...(A)) +
                    " parameters expected, " + std::to_string(params.via.array.size) + " given");
    }
    return detail::UnpackParams<A...>(method, params, std::index_sequence_for<A...>{});
}

}  // namespace gorm::cor::rr

#pragma once

#include "gorm/cor/rr/packing.h"
#include "gorm/cor/rr/service.h"
#include "kvo/broker/operations.h"
#include "kvo/broker/publisher_request.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace kvo {

/// The broker's side of DataBrokerRegistrationSync: decodes calls and runs them on a handler, a
/// class with a member function for each of KVO_BROKER_OPERATIONS. Its first parameter is the
/// caller; StreamName, SubscriberId and PublisherRequest may stand for what they are made from.
/// Where another broker may have to be asked first, the result is Deferred. What the handler
/// throws reaches the caller as the text of an error response.
/// Threads: the loop of the server.
template <class Handler>
class DataBrokerRegistrationService final : public gorm::cor::rr::Service {
    using Caller = gorm::cor::rr::Caller;
    using Packed = gorm::cor::rr::Deferred<std::string>;

public:
    /// @param handler must outlive the service.
    explicit DataBrokerRegistrationService(Handler& handler) : handler_(handler) {}

    Packed Dispatch(const Caller& caller, std::string_view method,
                    const msgpack::object& params) override {
        using Run = Packed (DataBrokerRegistrationService::*)(const Caller&, std::string_view,
                                                              const msgpack::object&) const;
        static const std::unordered_map<std::string_view, Run> operations = {
#define KVO_OPERATION(NAME, KIND) {#NAME, &DataBrokerRegistrationService::Decode<&Handler::NAME>},
            KVO_BROKER_OPERATIONS(KVO_OPERATION)
#undef KVO_OPERATION
        };
        const auto operation = operations.find(method);
        if (operation == operations.end()) {
            // A foreign name may be long and is not printed as it is.
            throw gorm::cor::Error("unknown method of " + std::to_string(method.size()) +
                                   " characters");
        }
        return (this->*operation->second)(caller, method, params);
    }

private:
    template <auto Operation>
    Packed Decode(const Caller& caller, std::string_view method,
                  const msgpack::object& params) const {
        return Call(Operation, caller, method, params);
    }

    template <class Result, class... Parameters>
    Packed Call(Result (Handler::*operation)(const Caller&, Parameters...), const Caller& caller,
                std::string_view method, const msgpack::object& params) const {
        return std::apply(
            [&](const auto&... arguments) -> Packed {
                if constexpr (std::is_void_v<Result>) {
                    (handler_.*operation)(caller, arguments...);
                    return gorm::cor::rr::PackNil();
                } else {
                    return Pack((handler_.*operation)(caller, arguments...));
                }
            },
            Unpack<std::decay_t<Parameters>...>(method, params));
    }

    template <class... Parameters>
    static auto Unpack(std::string_view method, const msgpack::object& params) {
        if constexpr (std::is_same_v<std::tuple<Parameters...>, std::tuple<PublisherRequest>>) {
            return std::apply(
                [](auto&&... fields) {
                    return std::make_tuple(PublisherRequest{std::move(fields)...});
                },
                gorm::cor::rr::UnpackParams<StreamName, std::int32_t, std::int32_t, std::int32_t,
                                            std::int32_t, bool, std::string>(method, params));
        } else {
            return gorm::cor::rr::UnpackParams<Parameters...>(method, params);
        }
    }

    template <class Result>
    static Packed Pack(const Result& result) {
        return gorm::cor::rr::PackResult(result);
    }
    template <class Result>
    static Packed Pack(const gorm::cor::rr::Deferred<Result>& later) {
        return later.Map([](const Result& result) { return gorm::cor::rr::PackResult(result); });
    }

    Handler& handler_;
};

}  // namespace kvo

#pragma once

#include "gorm/cor/rr/service.h"
#include "kvo/broker/operations.h"
#include "kvo/os/crash_point.h"
#include "requests/request_gate.h"

#include <functional>
#include <string>
#include <string_view>

namespace kvo::brokerd {

/// Lets a service answer only what a gate admits. Heartbeats and the one-way calls of the data path
/// pass, since the library sends them by itself.
/// Threads: the service loop.
class GatedService final : public gorm::cor::rr::Service {
public:
    GatedService(gorm::cor::rr::Service& service, RequestGate& gate, Clock clock)
        : service_(service), gate_(gate), clock_(std::move(clock)) {}

    gorm::cor::rr::Deferred<std::string> Dispatch(const gorm::cor::rr::Caller& caller,
                                                  std::string_view method,
                                                  const msgpack::object& params) override {
        if (KindOf(method) == OperationKind::kRequest) {
            gate_.Admit(caller.connection, clock_());
        }
        KVO_CRASH_POINT((std::string(method) + " taken").c_str());
        auto answer = service_.Dispatch(caller, method, params);
        KVO_CRASH_POINT((std::string(method) + " done").c_str());
        return answer;
    }

private:
    gorm::cor::rr::Service& service_;
    RequestGate& gate_;
    const Clock clock_;
};

}  // namespace kvo::brokerd

#pragma once

#include "curve/authenticator.h"
#include "gorm/cor/cor.h"
#include "rr/client_hub.h"
#include "runtime/type_loader.h"

#include <zmq.hpp>

#include <memory>
#include <mutex>

namespace gorm::cor {

/// What the middleware has once per process. Never destroyed, since its threads and the
/// application's static objects may use it until the process ends. Any thread.
class Runtime {
public:
    static Runtime& Get();

    zmq::context_t& context() { return context_; }
    TypeLoader& types() { return types_; }
    VekFactory& factory() { return factory_; }
    Cor& wkp() { return *wkp_; }

    /// The clients' side; its I/O thread starts with the first use.
    rr::ClientHub& hub();
    /// For the CURVE servers; its thread starts with the first.
    Authenticator& authenticator();

private:
    Runtime();

    zmq::context_t context_;
    TypeLoader types_;
    VekFactory factory_;
    const std::unique_ptr<Cor> wkp_;
    std::once_flag hub_made_;
    std::unique_ptr<rr::ClientHub> hub_;  // set once
    std::once_flag authenticator_made_;
    std::unique_ptr<Authenticator> authenticator_;  // set once
};

}  // namespace gorm::cor

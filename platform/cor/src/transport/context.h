#pragma once

#include <zmq.hpp>

namespace gorm::cor {

/// The transport's one context of this process, made at the first use. Never destroyed, since the
/// middleware's threads and the application's static objects may use it until the process ends.
/// Any thread.
zmq::context_t& transport_context();

}  // namespace gorm::cor

#pragma once

#include "kvo/brokerd/broker_state.h"

#include <string>

namespace kvo::brokerd {

/// The broker's state in the text format of Prometheus, version 0.0.4.
std::string MetricsOf(const BrokerState& state);

}  // namespace kvo::brokerd

#pragma once

#include "access/access.h"
#include "kvo/brokerd/broker.h"
#include "requests/request_gate.h"
#include "streams/stream_table.h"

#include <cstdint>
#include <string>
#include <vector>

// What a broker's parts need of its options, and whether these can be met. What throws does so with
// std::runtime_error naming the option and its value. Threads: any.
namespace kvo::brokerd {

/// Also warns of a time-out that is short for the period.
void CheckHeartbeat(const BrokerOptions& options, KvoLogger* logger);
void CheckKeys(const BrokerOptions& options);

RegistrySettings RegistrySettingsOf(const BrokerOptions& options);
RequestGate::Limits RequestLimitsOf(const BrokerOptions& options);
std::vector<AccessRule> AccessRulesOf(const BrokerOptions& options);
/// The name of the broker for others, and of its exported topics.
std::string BrokerNameOf(const BrokerOptions& options, std::uint16_t notification_port);
/// The directory of the stream files where none is configured. Makes it for port 0.
std::string DefaultDirectory(std::uint16_t port);

}  // namespace kvo::brokerd

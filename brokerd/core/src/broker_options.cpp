#include "broker_options.h"

#include "gorm/cor/serving.h"
#include "kvo/KvoLogger.h"

#include <climits>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace kvo::brokerd {
namespace {

constexpr std::chrono::seconds kLeastTimeout{3};
// Clients that reconnect after a loss need some seconds before their next heartbeat.
constexpr std::chrono::seconds kUsualMargin{6};

}  // namespace

void CheckAccessRule(const std::string& rule) {
    AccessRule::Parse(rule);
}

void CheckHeartbeat(const BrokerOptions& options, KvoLogger* logger) {
    const auto refuse = [](const std::string& what) { throw std::runtime_error(what); };
    const auto most = std::chrono::seconds(std::numeric_limits<std::int32_t>::max());
    if (options.heartbeat_period < std::chrono::seconds(0) || options.heartbeat_period > most) {
        refuse("heartbeat period of " + std::to_string(options.heartbeat_period.count()) +
               " s: 0 (none) or more is possible");
    }
    if (options.heartbeat_timeout < kLeastTimeout || options.heartbeat_timeout > most) {
        refuse("heartbeat time-out of " + std::to_string(options.heartbeat_timeout.count()) +
               " s: at least " + std::to_string(kLeastTimeout.count()) + " s is possible");
    }
    if (options.heartbeat_timeout < options.heartbeat_period + kUsualMargin) {
        KvoLogger::WriteToLogger(
            logger, 3,
            "a heartbeat time-out of " + std::to_string(options.heartbeat_timeout.count()) +
                " s is short for a period of " + std::to_string(options.heartbeat_period.count()) +
                " s: clients that reconnect may be taken for gone");
    }
}

void CheckKeys(const BrokerOptions& options) {
    if (!options.secret_key_file.empty() && options.allowed_keys_file.empty()) {
        throw std::runtime_error(
            "secret-key-file needs allowed-keys-file, with the keys that may connect");
    }
    if (options.secret_key_file.empty() && !options.allow_plaintext &&
        !gorm::cor::IsLoopback(options.address)) {
        throw std::runtime_error("address " + options.address +
                                 " can be reached from other hosts: name a key with "
                                 "secret-key-file, or allow all peers with allow-plaintext");
    }
}

RegistrySettings RegistrySettingsOf(const BrokerOptions& options) {
    const bool supervised = options.heartbeat_period.count() > 0;
    return {supervised ? options.heartbeat_timeout : std::chrono::seconds(0),
            options.removal_grace,
            options.max_streams,
            {options.client_streams, options.client_memory_bytes},
            {options.user_streams, options.user_memory_bytes}};
}

std::vector<AccessRule> AccessRulesOf(const BrokerOptions& options) {
    std::vector<AccessRule> rules;
    for (const std::string& text : options.access_rules) {
        try {
            rules.push_back(AccessRule::Parse(text));
        } catch (const std::invalid_argument& error) {
            throw std::runtime_error(error.what());
        }
    }
    return rules;
}

// A request port that is drawn is known too late.
std::string BrokerNameOf(const BrokerOptions& options, std::uint16_t notification_port) {
    if (!options.name.empty()) {
        return options.name;
    }
    std::array<char, HOST_NAME_MAX + 1> host{};
    if (::gethostname(host.data(), host.size() - 1) != 0) {
        throw std::system_error(errno, std::generic_category(), "asking for the host's name");
    }
    return std::string(host.data()) + ":" +
           std::to_string(options.port != 0 ? options.port : notification_port);
}

RequestGate::Limits RequestLimitsOf(const BrokerOptions& options) {
    return {options.request_rate, options.request_burst};
}

// The directory is locked before a port is bound, so one that any free port is good for has a
// name of its own.
std::string DefaultDirectory(std::uint16_t port) {
    const std::string begin = "/dev/shm/kvo-" + std::to_string(::geteuid()) + "-";
    if (port != 0) {
        return begin + std::to_string(port);
    }
    std::string path = begin + "XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "making a directory " + path);
    }
    return path;
}

}  // namespace kvo::brokerd

#pragma once

#include "kvo/brokerd/broker.h"

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kvo::brokerd {

/// Everything that the broker's program can be told.
struct Configuration {
    BrokerOptions broker;
    std::string log_level = "info";
    std::string log_configuration;  // path of a log4cplus file; empty: standard error
    std::string http_address = "127.0.0.1";
    std::uint16_t http_port = 0;  // 0: no HTTP
};

/// A file or a value that is rejected; the text says where and why.
class ConfigurationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One thing that can be set: by `key` in the file, by the option "--key" and by the environment
/// variable EnvironmentNameOf(key), the option before the variable before the file.
struct Setting {
    const char* key;
    const char* help;
    bool at_run_time;  // SIGHUP puts a new value into force; else the next start
    bool list;  // an array in the file, the option again for each, ';' between in the variable
    std::function<std::string(const Configuration&)> text;
    /// Takes values as texts, one unless it is a list; throws ConfigurationError saying what is
    /// possible.
    std::function<void(Configuration&, const std::vector<std::string>&)> set;
};

/// All settings, in the order of the documentation.
const std::vector<Setting>& Settings();

/// "heartbeat-timeout" is KVO_BROKER_HEARTBEAT_TIMEOUT.
std::string EnvironmentNameOf(const std::string& key);

/// Reads a TOML file into the configuration. Throws ConfigurationError naming file, line and
/// column of the first thing that is wrong: syntax, an unknown key, a value.
void ReadFile(const std::string& path, Configuration& configuration);

/// What is wrong with the values together; throws ConfigurationError.
void Check(const Configuration& configuration);

/// Adds an option for every setting, with its environment variable; the parse sets the values.
void AddOptions(CLI::App& app, Configuration& configuration);

/// Takes the lists from the environment, which the options do not read themselves. Throws
/// ConfigurationError naming the variable.
void ReadEnvironmentLists(Configuration& configuration);

/// The keys whose values differ and that need a new start.
std::vector<std::string> NeedingRestart(const Configuration& now, const Configuration& wanted);

}  // namespace kvo::brokerd

#include "configuration.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <sstream>
#include <toml++/toml.h>
#include <type_traits>
#include <utility>

namespace kvo::brokerd {
namespace {

[[noreturn]] void Refuse(const std::string& value, const std::string& possible) {
    throw ConfigurationError("\"" + value + "\" is not possible: " + possible);
}

template <class T>
T NumberOf(const std::string& text, T least, T most) {
    T number{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || rest != end || number < least || number > most) {
        Refuse(text,
               "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

std::uint64_t BytesOf(const std::string& text) {
    std::string bytes = text;
    try {
        CLI::AsSizeValue(false)(bytes);
    } catch (const CLI::Error&) {
        Refuse(text, "bytes, such as 1048576 or 512MiB");
    }
    return NumberOf<std::uint64_t>(bytes, 0, std::numeric_limits<std::int64_t>::max());
}

// A setting that is a number in the field that `member` gives.
template <class Member>
Setting Number(const char* key, const char* help, bool at_run_time, Member member,
               std::int64_t least, std::int64_t most) {
    return {key, help, at_run_time,
            [member](const Configuration& c) {
                return std::to_string(member(const_cast<Configuration&>(c)));
            },
            [member, least, most](Configuration& c, const std::string& text) {
                auto& field = member(c);
                field = static_cast<std::remove_reference_t<decltype(field)>>(
                    NumberOf<std::int64_t>(text, least, most));
            }};
}

template <class Duration, class Member>
Setting Time(const char* key, const char* help, bool at_run_time, Member member, std::int64_t least,
             std::int64_t most) {
    return {key, help, at_run_time,
            [member](const Configuration& c) {
                return std::to_string(member(const_cast<Configuration&>(c)).count());
            },
            [member, least, most](Configuration& c, const std::string& text) {
                member(c) = Duration(NumberOf<std::int64_t>(text, least, most));
            }};
}

template <class Member>
Setting Text(const char* key, const char* help, bool at_run_time, Member member) {
    return {key, help, at_run_time,
            [member](const Configuration& c) { return member(const_cast<Configuration&>(c)); },
            [member](Configuration& c, const std::string& text) { member(c) = text; }};
}

std::vector<Setting> MakeSettings() {
    using C = Configuration;
    constexpr std::int64_t kMostPort = 65535;
    constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
    std::vector<Setting> settings{
        Text(
            "address", "Address to listen at", false,
            [](C & c) -> auto& { return c.broker.address; }),
        Number(
            "port", "Port of the requests; 0: any free one", false,
            [](C & c) -> auto& { return c.broker.port; }, 0, kMostPort),
        Number(
            "notification-port", "Port of the notifications; 0: any free one", false,
            [](C & c) -> auto& { return c.broker.notification_port; }, 0, kMostPort),
        Text(
            "directory",
            "Directory of the stream files; empty: /dev/shm/kvo-<user id>-<port>, with port 0 a "
            "new one",
            false, [](C & c) -> auto& { return c.broker.directory; }),
        Time<std::chrono::seconds>(
            "heartbeat-period", "Seconds between the heartbeats of a client; 0: none", false,
            [](C & c) -> auto& { return c.broker.heartbeat_period; }, 0, kMost),
        Time<std::chrono::seconds>(
            "heartbeat-timeout",
            "Seconds without a heartbeat until a client is unregistered; at least 3", true,
            [](C & c) -> auto& { return c.broker.heartbeat_timeout; }, 3, kMost),
        Time<std::chrono::milliseconds>(
            "removal-grace", "Milliseconds from the end of a publisher to the end of its file",
            true, [](C & c) -> auto& { return c.broker.removal_grace; }, 0, kMost),
        Number(
            "max-streams", "Most streams at a time", true,
            [](C & c) -> auto& { return c.broker.max_streams; }, 1, kMost),
        {"memory-budget",
         "Most shared memory of all streams, such as 512MiB; 0: half of the file system", true,
         [](const C& c) { return std::to_string(c.broker.memory_budget_bytes); },
         [](C& c, const std::string& text) { c.broker.memory_budget_bytes = BytesOf(text); }},
        {"spare-memory", "Memory of the spare slots of each stream, such as 16MiB", false,
         [](const C& c) { return std::to_string(c.broker.spare_slots.budget_bytes); },
         [](C& c, const std::string& text) { c.broker.spare_slots.budget_bytes = BytesOf(text); }},
        Number(
            "pins-per-reader", "Samples that a reader holds without a copy, 1 to 6", false,
            [](C & c) -> auto& { return c.broker.spare_slots.pins_per_row; }, 1, 6),
        Number(
            "max-connections", "Most connections at a time", false,
            [](C & c) -> auto& { return c.broker.max_connections; }, 1, 1'000'000),
        Number(
            "request-rate", "Requests a second of one connection; 0: no limit", true,
            [](C & c) -> auto& { return c.broker.request_rate; }, 0, kMost),
        Number(
            "request-burst", "Requests of one connection at once, above the rate", true,
            [](C & c) -> auto& { return c.broker.request_burst; }, 1, kMost),
        {"log-level", "debug, info, warning or error", true, [](const C& c) { return c.log_level; },
         [](C& c, const std::string& text) {
             if (text != "debug" && text != "info" && text != "warning" && text != "error") {
                 Refuse(text, "debug, info, warning or error");
             }
             c.log_level = text;
         }},
        Text(
            "log-configuration", "log4cplus properties file for the log; empty: to standard error",
            false, [](C & c) -> auto& { return c.log_configuration; }),
        Text(
            "http-address", "Address of health, metrics and the read-only interface", false,
            [](C & c) -> auto& { return c.http_address; }),
        Number(
            "http-port", "Port of health, metrics and the read-only interface; 0: none", false,
            [](C & c) -> auto& { return c.http_port; }, 0, kMostPort),
    };
    return settings;
}

const Setting* FindSetting(std::string_view key) {
    const auto& settings = Settings();
    const auto found = std::find_if(settings.begin(), settings.end(),
                                    [key](const Setting& setting) { return setting.key == key; });
    return found == settings.end() ? nullptr : &*found;
}

std::string PlaceOf(const std::string& path, const toml::source_region& source) {
    return path + ":" + std::to_string(source.begin.line) + ":" +
           std::to_string(source.begin.column) + ": ";
}

std::string ValueOf(const toml::node& node) {
    if (const auto text = node.value_exact<std::string>()) {
        return *text;
    }
    if (const auto number = node.value_exact<std::int64_t>()) {
        return std::to_string(*number);
    }
    throw ConfigurationError("a text or a whole number is possible");
}

}  // namespace

const std::vector<Setting>& Settings() {
    static const std::vector<Setting> settings = MakeSettings();
    return settings;
}

std::string EnvironmentNameOf(const std::string& key) {
    std::string name = "KVO_BROKER_" + key;
    for (char& letter : name) {
        letter = letter == '-'                    ? '_'
                 : letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A')
                                                  : letter;
    }
    return name;
}

void ReadFile(const std::string& path, Configuration& configuration) {
    toml::table table;
    try {
        table = toml::parse_file(path);
    } catch (const toml::parse_error& error) {
        throw ConfigurationError(PlaceOf(path, error.source()) + std::string(error.description()));
    }
    // In the order of the file, so that the first mistake is told.
    std::vector<std::pair<const toml::key*, const toml::node*>> entries;
    for (const auto& [key, node] : table) {
        entries.emplace_back(&key, &node);
    }
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
        return a.first->source().begin < b.first->source().begin;
    });
    for (const auto& [key, node] : entries) {
        const Setting* const setting = FindSetting(key->str());
        if (setting == nullptr) {
            throw ConfigurationError(PlaceOf(path, key->source()) + "unknown key \"" +
                                     std::string(key->str()) + "\"");
        }
        try {
            setting->set(configuration, ValueOf(*node));
        } catch (const ConfigurationError& error) {
            throw ConfigurationError(PlaceOf(path, node->source()) + setting->key + ": " +
                                     error.what());
        }
    }
}

void Check(const Configuration& configuration) {
    const BrokerOptions& broker = configuration.broker;
    if (broker.heartbeat_timeout <= broker.heartbeat_period) {
        throw ConfigurationError("heartbeat-timeout of " +
                                 std::to_string(broker.heartbeat_timeout.count()) +
                                 " s is not longer than the heartbeat-period of " +
                                 std::to_string(broker.heartbeat_period.count()) + " s");
    }
}

void AddOptions(CLI::App& app, Configuration& configuration) {
    for (const Setting& setting : Settings()) {
        auto* option = app.add_option_function<std::string>(
            std::string("--") + setting.key,
            [&setting, &configuration](const std::string& text) {
                try {
                    setting.set(configuration, text);
                } catch (const ConfigurationError& error) {
                    throw CLI::ValidationError(std::string("--") + setting.key, error.what());
                }
            },
            setting.help);
        option->envname(EnvironmentNameOf(setting.key));
        option->default_str(setting.text(Configuration{}));
        option->type_name("");
    }
}

std::vector<std::string> NeedingRestart(const Configuration& now, const Configuration& wanted) {
    std::vector<std::string> keys;
    for (const Setting& setting : Settings()) {
        if (!setting.at_run_time && setting.text(now) != setting.text(wanted)) {
            keys.emplace_back(setting.key);
        }
    }
    return keys;
}

}  // namespace kvo::brokerd

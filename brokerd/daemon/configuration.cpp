#include "configuration.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <toml++/toml.h>
#include <utility>

namespace kvo::brokerd {
namespace {

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
    if (const auto flag = node.value_exact<bool>()) {
        return *flag ? "true" : "false";
    }
    throw ConfigurationError("a text or a whole number is possible");
}

std::vector<std::string> ValuesOf(const Setting& setting, const toml::node& node) {
    if (!setting.list) {
        return {ValueOf(node)};
    }
    const toml::array* const array = node.as_array();
    if (array == nullptr || (!array->empty() && !array->is_homogeneous<std::string>())) {
        throw ConfigurationError("a list of texts is possible");
    }
    std::vector<std::string> values;
    for (const toml::node& element : *array) {
        values.push_back(*element.value_exact<std::string>());
    }
    return values;
}

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, ';');) {
        parts.push_back(part);
    }
    return parts;
}

}  // namespace

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
            setting->set(configuration, ValuesOf(*setting, *node));
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
        const std::string name = std::string("--") + setting.key;
        auto* option = app.add_option_function<std::vector<std::string>>(
            name,
            [name, &setting, &configuration](const std::vector<std::string>& values) {
                try {
                    setting.set(configuration, values);
                } catch (const ConfigurationError& error) {
                    throw CLI::ValidationError(name, error.what());
                }
            },
            setting.help);
        option->default_str(setting.text(Configuration{}));
        option->type_name("");
        if (setting.list) {
            option->allow_extra_args(false);  // once for each text
        } else {
            option->expected(1);
            option->envname(EnvironmentNameOf(setting.key));
        }
    }
}

void ReadEnvironmentLists(Configuration& configuration) {
    for (const Setting& setting : Settings()) {
        const std::string name = EnvironmentNameOf(setting.key);
        const char* const text = setting.list ? std::getenv(name.c_str()) : nullptr;
        if (text == nullptr) {
            continue;
        }
        try {
            setting.set(configuration, Split(text));
        } catch (const ConfigurationError& error) {
            throw ConfigurationError(name + ": " + error.what());
        }
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

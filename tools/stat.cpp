// kvo stat: what a broker knows of one stream.
#include "broker_probe.h"
#include "command.h"
#include "kvo/KvoStatisticsClient.h"
#include "tool_log.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kvo::tools {
namespace {

struct StatOptions {
    std::string stream;
    bool json = false;
};

constexpr std::int64_t kNsPerSecond = 1'000'000'000;

std::string PublisherState(std::int32_t state) {
    switch (state) {
        case 0:
            return "gone";
        case 1:
            return "local";
        case 2:
            return "remote";
        default:
            return std::to_string(state);
    }
}

std::string LastWrite(std::int64_t timestamp_ns) {
    if (timestamp_ns == 0) {
        return "never";
    }
    const std::time_t seconds = timestamp_ns / kNsPerSecond;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::ostringstream text;
    text << std::put_time(&utc, "%Y-%m-%d %H:%M:%S") << '.' << std::setw(3) << std::setfill('0')
         << timestamp_ns % kNsPerSecond / 1'000'000 << " UTC";
    return text.str();
}

// What a broker tells beyond the statistics of the library: name and value.
using Causes = std::vector<std::pair<std::string, std::string>>;

Causes CausesOf(const std::vector<std::string>& elements) {
    constexpr std::size_t kStatistics = 7;
    Causes causes;
    for (std::size_t i = kStatistics; i < elements.size(); ++i) {
        const std::size_t at = elements[i].find('=');
        if (at != std::string::npos && at + 1 < elements[i].size()) {
            causes.emplace_back(elements[i].substr(0, at), elements[i].substr(at + 1));
        }
    }
    return causes;
}

void PrintTable(const std::string& stream, const StreamStatistics& statistics,
                const Causes& causes) {
    std::cout << "stream           " << stream << '\n'
              << "publisher        " << PublisherState(statistics.int_value_2) << '\n'
              << "subscribers      " << statistics.int_value_1 << '\n'
              << "samples written  " << statistics.count_value_1 << '\n'
              << "payload bytes    " << statistics.count_value_2 << '\n'
              << "dropped or lost  " << statistics.count_value_3 << '\n'
              << "last write       " << LastWrite(statistics.timestamp_ns) << '\n'
              << "stream file      " << statistics.text_value << '\n';
    for (const auto& [name, value] : causes) {
        std::cout << std::left << std::setw(16) << name << ' ' << value << '\n';
    }
}

void PrintJson(const std::string& stream, const StreamStatistics& statistics,
               const Causes& causes) {
    nlohmann::ordered_json json;
    json["stream"] = stream;
    json["publisher"] = PublisherState(statistics.int_value_2);
    json["subscribers"] = statistics.int_value_1;
    json["samples_written"] = statistics.count_value_1;
    json["payload_bytes"] = statistics.count_value_2;
    json["dropped_or_lost"] = statistics.count_value_3;
    json["last_write_ms"] = statistics.timestamp_ns / 1'000'000;
    json["stream_file"] = statistics.text_value;
    for (const auto& [name, value] : causes) {
        json[name] = value;
    }
    std::cout << json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

ExitCode Show(const StatOptions& options, const CommonOptions& common) {
    ToolLog log(common.verbose);
    BrokerProbe broker(common.broker);
    const auto streams = broker.Ask(
        [](DataBrokerRegistrationSync& client) { return client.ListRegisteredStreams(); });
    // A stream of another host is not registered here, but taken.
    if (std::find(streams.begin(), streams.end(), options.stream) == streams.end() &&
        broker.Ask([&](DataBrokerRegistrationSync& client) {
            return client.IsStreamIdFree(options.stream);
        })) {
        throw CommandFailure(ExitCode::kNothingThere, "no stream '" + options.stream + "' at " +
                                                          broker.uri() +
                                                          "; kvo ls tells what is there");
    }
    log.ShowErrors();
    KvoStatisticsClient client(log.logger(), broker.uri());
    const StreamStatistics statistics = client.GetStatistics(options.stream);
    if (statistics.text_value.empty()) {
        throw CommandFailure(ExitCode::kFailure, "the statistics of stream '" + options.stream +
                                                     "' could not be had from " + broker.uri());
    }
    const Causes causes = CausesOf(broker.Ask([&](DataBrokerRegistrationSync& direct) {
        return direct.GetStreamStatistics(options.stream);
    }));
    if (options.json) {
        PrintJson(options.stream, statistics, causes);
    } else {
        PrintTable(options.stream, statistics, causes);
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddStat(CLI::App& app, Action& action) {
    const auto options = std::make_shared<StatOptions>();
    CLI::App* stat = app.add_subcommand("stat", "Show the statistics of a stream");
    stat->add_option("STREAM", options->stream, "Name of the stream")->required();
    stat->add_flag("--json", options->json, "One line of JSON");
    stat->callback([options, &action] {
        action = [options](const CommonOptions& common) { return Show(*options, common); };
    });
}

}  // namespace kvo::tools

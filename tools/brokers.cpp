// kvo brokers: the brokers of other hosts that a broker works with, and the streams between them.
#include "broker_probe.h"
#include "command.h"
#include "tool_log.h"

#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

namespace kvo::tools {
namespace {

// One text of ListRemoteStreams.
struct RemoteStream {
    std::string direction;
    std::string broker;
    std::string stream;
    std::string state;
    // As the names of PrintJson().
    std::array<std::uint64_t, 9> numbers{};
};

RemoteStream Parse(const std::string& line) {
    std::istringstream text(line);
    RemoteStream stream;
    text >> stream.direction >> stream.broker >> stream.stream >> stream.state;
    for (std::uint64_t& number : stream.numbers) {
        text >> number;
    }
    return stream;
}

void PrintJson(const RemoteStream& stream) {
    static constexpr std::array kNames{"samples",     "payload_bytes",   "samples_per_s",
                                       "bytes_per_s", "lost_on_the_way", "not_taken",
                                       "overtaken",   "held_up",         "deadlines_missed"};
    nlohmann::ordered_json json;
    json["direction"] = stream.direction;
    json["broker"] = stream.broker;
    json["stream"] = stream.stream;
    json["live"] = stream.state == "live";
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        json[kNames[i]] = stream.numbers[i];
    }
    std::cout << json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void Print(const RemoteStream& stream) {
    const auto& [samples, bytes, samples_per_s, bytes_per_s, lost, not_taken, overtaken, held_up,
                 deadlines] = stream.numbers;
    const bool import = stream.direction == "import";
    std::cout << stream.broker << (import ? " -> here   " : " <- here   ") << stream.stream << "   "
              << stream.state << ", " << samples << " samples, " << bytes << " bytes, "
              << samples_per_s << " samples/s, " << bytes_per_s << " bytes/s";
    if (import) {
        std::cout << "; lost on the way " << lost << ", not taken " << not_taken
                  << ", deadlines missed " << deadlines << '\n';
    } else {
        std::cout << "; overwritten before they were sent " << overtaken << ", held up " << held_up
                  << '\n';
    }
}

}  // namespace

void AddBrokers(CLI::App& app, Action& action) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* brokers = app.add_subcommand(
        "brokers", "List the brokers of other hosts that this one works with, and their streams");
    brokers->add_flag("--json", *json, "One line of JSON for each stream");
    brokers->callback([json, &action] {
        action = [json](const CommonOptions& common) {
            const ToolLog log(common.verbose);
            BrokerProbe broker(common.broker);
            for (const std::string& line : broker.Ask([](DataBrokerRegistrationSync& client) {
                     return client.ListRemoteStreams();
                 })) {
                *json ? PrintJson(Parse(line)) : Print(Parse(line));
            }
            return ExitCode::kSuccess;
        };
    });
}

}  // namespace kvo::tools

// kvo brokers: the brokers of other hosts that a broker works with, and the streams between them.
#include "broker_probe.h"
#include "command.h"
#include "kvo/broker/remote_stream_state.h"
#include "tool_log.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

namespace kvo::tools {
namespace {

void PrintJson(const RemoteStreamState& state) {
    nlohmann::ordered_json json;
    RemoteStreamState::ForEachField(
        state, [&json](const char* name, const auto& field) { json[name] = field; });
    std::cout << json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void Print(const RemoteStreamState& state) {
    std::cout << state.broker << (state.import ? " -> here   " : " <- here   ") << state.stream
              << "   " << (state.live ? "live" : "lost") << ", " << state.samples << " samples, "
              << state.payload_bytes << " bytes, " << std::fixed << std::setprecision(0)
              << state.samples_per_s << " samples/s, " << state.bytes_per_s << " bytes/s";
    for (const TransferLoss& loss : kTransferLosses) {
        if (loss.import == state.import) {
            std::string name = loss.name;
            std::replace(name.begin(), name.end(), '_', ' ');
            std::cout << ", " << name << ' ' << state.*loss.count;
        }
    }
    if (state.import) {
        std::cout << ", deadlines missed " << state.deadlines_missed;
    }
    std::cout << '\n';
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
            for (const RemoteStreamState& state :
                 broker.Ask([](DataBrokerRegistrationSync& client) {
                     return client.ListRemoteStreams();
                 })) {
                *json ? PrintJson(state) : Print(state);
            }
            return ExitCode::kSuccess;
        };
    });
}

}  // namespace kvo::tools

// kvo brokers: the brokers that a broker is connected with, one per line.
#include "broker_probe.h"
#include "command.h"
#include "tool_log.h"

#include <iostream>

namespace kvo::tools {

void AddBrokers(CLI::App& app, Action& action) {
    CLI::App* brokers =
        app.add_subcommand("brokers", "List the brokers of other hosts that this one works with");
    brokers->callback([&action] {
        action = [](const CommonOptions& common) {
            const ToolLog log(common.verbose);
            BrokerProbe broker(common.broker);
            for (const std::string& uri : broker.Ask([](DataBrokerRegistrationSync& client) {
                     return client.ListConnectedBrokers();
                 })) {
                std::cout << uri << '\n';
            }
            return ExitCode::kSuccess;
        };
    });
}

}  // namespace kvo::tools

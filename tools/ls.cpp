// kvo ls: the streams of a broker, one per line.
#include "broker_probe.h"
#include "command.h"
#include "tool_log.h"

#include <algorithm>
#include <iostream>

namespace kvo::tools {

void AddLs(CLI::App& app, Action& action) {
    CLI::App* ls = app.add_subcommand("ls", "List the registered streams");
    ls->callback([&action] {
        action = [](const CommonOptions& common) {
            const ToolLog log(common.verbose);
            BrokerProbe broker(common.broker);
            auto streams = broker.Ask(
                [](DataBrokerRegistrationSync& client) { return client.ListRegisteredStreams(); });
            std::sort(streams.begin(), streams.end());
            for (const std::string& stream : streams) {
                std::cout << stream << '\n';
            }
            return ExitCode::kSuccess;
        };
    });
}

}  // namespace kvo::tools

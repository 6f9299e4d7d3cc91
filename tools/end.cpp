// kvo end: ends the registration of a stream's publisher, whichever process it is.
#include "broker_probe.h"
#include "command.h"
#include "kvo/broker/broker_result.h"
#include "tool_log.h"

#include <memory>
#include <string>

namespace kvo::tools {
namespace {

ExitCode End(const CommonOptions& common, const std::string& stream) {
    const ToolLog log(common.verbose);
    BrokerProbe broker(common.broker);
    const int code =
        broker.Ask([&](DataBrokerRegistrationSync& client) { return client.EndStream(stream); });
    if (code == kRegistered) {
        return ExitCode::kSuccess;
    }
    const std::string name = "'" + stream + "'";
    if (code == kNoRight) {
        throw CommandFailure(ExitCode::kRefused,
                             "the broker refused to end stream " + name + ReasonOf(broker, stream));
    }
    throw CommandFailure(ExitCode::kNothingThere,
                         "stream " + name + " has no publisher of the host of " + broker.uri() +
                             "; kvo ls lists those that have");
}

}  // namespace

void AddEnd(CLI::App& app, Action& action) {
    const auto stream = std::make_shared<std::string>();
    CLI::App* end = app.add_subcommand(
        "end", "End the registration of a stream's publisher; takes the right to administer it");
    end->add_option("STREAM", *stream, "Name of the stream")->required();
    end->callback([stream, &action] {
        action = [stream](const CommonOptions& common) { return End(common, *stream); };
    });
}

}  // namespace kvo::tools

// The command line: looks at streams and moves data through them. Data goes to standard output,
// everything else to standard error.
#include "command.h"
#include "stop_signal.h"

#include <CLI/CLI.hpp>
#include <log4cplus/initializer.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <string>

namespace {

using kvo::tools::Action;
using kvo::tools::CommandFailure;
using kvo::tools::CommonOptions;
using kvo::tools::ExitCode;

constexpr const char* kFooter =
    "Exit codes: 0 success, 1 failure, 2 usage, 3 no such stream or no data in time,\n"
    "            4 broker unreachable, 5 refused by the broker\n"
    "kvo COMMAND --help tells a command's options.";

void AddCommonOptions(CLI::App& command, CommonOptions& common) {
    command.add_option("--broker", common.broker, "URI of the broker")
        ->envname("KVO_BROKER")
        ->capture_default_str();
    command.add_flag("-v,--verbose", common.verbose,
                     "Show the log of the library on standard error");
}

int Report(ExitCode code, const char* what) {
    std::cerr << "kvo: " << what << '\n';
    return static_cast<int>(code);
}

int Run(int argc, char** argv) {
    CLI::App app{"Streams of samples between processes through shared memory.", "kvo"};
    app.require_subcommand(1);
    app.footer(kFooter);
    app.set_version_flag("--version", std::string("kvo ") + KVO_VERSION);
    CommonOptions common;
    Action action;
    kvo::tools::AddPub(app, action);
    kvo::tools::AddSub(app, action);
    kvo::tools::AddLs(app, action);
    kvo::tools::AddStat(app, action);
    kvo::tools::AddBrokers(app, action);
    kvo::tools::AddEnd(app, action);
    kvo::tools::AddShm(app, action);
    kvo::tools::AddKeys(app, action);
    for (CLI::App* command : app.get_subcommands({})) {
        AddCommonOptions(*command, common);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? static_cast<int>(ExitCode::kSuccess)
                                    : static_cast<int>(ExitCode::kUsage);
    }
    try {
        const ExitCode code = action(common);
        if (!std::cout.flush()) {
            return Report(ExitCode::kFailure, "cannot write to standard output");
        }
        return static_cast<int>(code);
    } catch (const CommandFailure& failure) {
        return Report(failure.code(), failure.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread starts: all of them inherit what is blocked here.
    kvo::tools::BlockStopSignals();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const log4cplus::Initializer logging;
        return Run(argc, argv);
    } catch (const std::exception& error) {
        return Report(ExitCode::kFailure, error.what());
    }
}

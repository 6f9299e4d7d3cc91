#include "command_line.h"

#include <CLI/CLI.hpp>

namespace kvo::brokerd {
namespace {

constexpr char kFileHelp[] = "TOML file with any of the settings below";

void AddFileOption(CLI::App& app, std::string& file) {
    app.add_option("--config", file, kFileHelp)
        ->envname(EnvironmentNameOf("config"))
        ->type_name("FILE");
}

// The file comes first, since options and environment go before it.
std::string FileOf(int argc, char** argv) {
    CLI::App app;
    app.set_help_flag();
    app.allow_extras();
    std::string file;
    AddFileOption(app, file);
    app.parse(argc, argv);
    return file;
}

}  // namespace

std::optional<CommandLine> ReadCommandLine(int argc, char** argv, int& exit_code) {
    CommandLine line;
    CLI::App app{"Keeps the streams of this host: names, shared memory, notifications.",
                 "kvo-broker"};
    app.footer(
        "Each setting can also stand in the file, by its name without the dashes, or in the\n"
        "environment. The address is printed to standard output, the log goes to standard error.\n"
        "SIGINT and SIGTERM end the broker; streams in use stay for the next one on the\n"
        "directory. SIGHUP reads the configuration again, SIGUSR2 ends all streams, then the\n"
        "broker.\n"
        "Exit codes: 0 success, 1 failure, 2 usage or configuration");
    app.set_version_flag("--version", std::string("kvo-broker ") + KVO_VERSION);
    app.add_flag("--check-config", line.check_only,
                 "Say whether the configuration is good, and end");
    std::string file;
    AddFileOption(app, file);
    AddOptions(app, line.configuration);
    try {
        line.file = FileOf(argc, argv);
        if (!line.file.empty()) {
            ReadFile(line.file, line.configuration);
        }
        ReadEnvironmentLists(line.configuration);
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error) == 0 ? 0 : kUsage;
        return std::nullopt;
    }
    Check(line.configuration);
    return line;
}

}  // namespace kvo::brokerd

#pragma once

#include "exit_codes.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace kvo::tools {

/// What every command understands.
struct CommonOptions {
    std::string broker = "wkp.rr://127.0.0.1:5000";
    bool verbose = false;
};

/// What the chosen command does; set while the arguments are parsed.
using Action = std::function<ExitCode(const CommonOptions&)>;

// Each adds one command with its options; parsing it sets the action.
void AddPub(CLI::App& app, Action& action);
void AddSub(CLI::App& app, Action& action);
void AddLs(CLI::App& app, Action& action);
void AddStat(CLI::App& app, Action& action);
void AddBrokers(CLI::App& app, Action& action);
void AddEnd(CLI::App& app, Action& action);
void AddKeys(CLI::App& app, Action& action);
void AddShm(CLI::App& app, Action& action);

}  // namespace kvo::tools

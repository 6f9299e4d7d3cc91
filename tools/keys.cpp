// kvo keys: a new pair of keys for CURVE. The secret one goes to a file, the public one to standard
// output.
#include "command.h"
#include "gorm/cor/curve.h"
#include "gorm/cor/errors.h"

#include <iostream>
#include <memory>
#include <string>

namespace kvo::tools {

void AddKeys(CLI::App& app, Action& action) {
    const auto file = std::make_shared<std::string>();
    CLI::App* keys = app.add_subcommand(
        "keys", "Make a pair of keys for connections to other hosts; print the public one");
    keys->add_option("FILE", *file, "New file for the secret key, for its owner alone")->required();
    keys->callback([file, &action] {
        action = [file](const CommonOptions&) {
            try {
                const gorm::cor::CurveKeys drawn = gorm::cor::DrawCurveKeys();
                gorm::cor::WriteCurveKeys(*file, drawn);
                std::cout << drawn.public_key << '\n';
                return ExitCode::kSuccess;
            } catch (const gorm::cor::Error& error) {
                throw CommandFailure(ExitCode::kFailure, error.what());
            }
        };
    });
}

}  // namespace kvo::tools

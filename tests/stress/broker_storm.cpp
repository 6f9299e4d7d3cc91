// What a broker must bear: messages of every wrong kind, connections that say nothing beside a
// client that floods it, and registrations without end. In the meantime a well-behaved client gets
// the right answers in time, and afterwards the broker uses no more than before.
#include "broker_scene.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <random>

int main(int argc, char** argv) {
    using namespace kvo::bench;
    CLI::App app("Sends a broker of its own what it has to bear. Exit code 1: it did not bear it.");
    Options options;
    options.seed = std::random_device()();
    app.add_option("--messages", options.messages, "Malformed messages")->capture_default_str();
    app.add_flag("--quick", options.quick, "50,000 messages, and less of everything else");
    app.add_option("--seed", options.seed, "Of the random choices; default: a new one");
    app.add_option("--broker", options.broker, "The broker; default: kvo-broker beside this");
    app.add_option("--growth", options.growth_mib, "MiB that the broker may grow by")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    if (options.quick) {
        options.messages = 50'000;
    }
    try {
        std::cout << "seed " << options.seed << std::endl;
        BearMalformedMessages(options);
        BearSilenceAndFlood(options);
        BearRegistrations(options);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kvo-broker-storm (seed " << options.seed << "): " << error.what()
                  << std::endl;
        return 1;
    }
}

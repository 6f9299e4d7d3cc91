// This system beside others that move samples between processes: every system is measured once in
// each run, one after the other, by the same code.
#include "measure.h"

#include <CLI/CLI.hpp>
#include <log4cplus/configurator.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kvo::bench;
using std::chrono::milliseconds;

constexpr std::size_t kMiB = 1024 * 1024;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The systems with one of these names; all when none is given.
std::vector<System> Chosen(const std::vector<std::string>& names) {
    std::vector<System> systems = Systems();
    if (!names.empty()) {
        std::erase_if(systems, [&](const System& system) {
            return std::none_of(names.begin(), names.end(), [&](const std::string& name) {
                return Lower(name) == Lower(system.name);
            });
        });
    }
    return systems;
}

// What is measured, and with samples of which sizes.
struct Choice {
    std::vector<std::string> metrics{"latency", "rate", "processor", "fan-out"};
    std::vector<std::size_t> bytes{64, 4096, kMiB};

    bool Has(std::string_view metric) const {
        return std::ranges::find(metrics, metric) != metrics.end();
    }
};

void MeasureOnce(const std::vector<System>& systems, const Choice& choice, const Effort& effort,
                 Report& report) {
    std::vector<System> blocking;
    std::ranges::copy_if(systems, std::back_inserter(blocking),
                         [](const System& system) { return system.readers == Readers::kBlocked; });
    for (const std::size_t bytes : choice.bytes) {
        MeasureCopy(bytes, report);
        if (choice.Has("latency")) {
            for (const System& system : blocking) {
                MeasureLatency(system, bytes, effort, report);
            }
        }
        if (choice.Has("rate")) {
            for (const System& system : systems) {
                if (bytes == kMiB || system.readers != Readers::kBlockedBulk) {
                    MeasureRate(system, bytes, BuffersFor(bytes), effort, report);
                }
            }
        }
        if (choice.Has("rate") && bytes == kMiB) {
            for (const System& system : systems) {
                if (!system.polled()) {
                    MeasureRate(system, kMiB, 2, effort, report);
                }
            }
        }
    }
    if (choice.Has("processor")) {
        for (const System& system : blocking) {
            MeasureProcessorTime(system, effort, report);
        }
    }
    if (choice.Has("fan-out")) {
        for (const std::size_t readers : {1, 4, 16, 64}) {
            for (const System& system : blocking) {
                MeasureFanOut(system, readers, effort, report);
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures this system beside others that move samples between processes.");
    int runs = 5;
    bool quick = false;
    std::vector<std::string> only;
    Choice choice;
    std::string json;
    app.add_option("--runs", runs, "times that everything is measured, in turn")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_flag("--quick", quick, "one run unless --runs is given, each measurement shorter");
    app.add_option("--only", only, "these systems, separated by commas")->delimiter(',');
    app.add_option("--metrics", choice.metrics, "these metrics, separated by commas")
        ->delimiter(',')
        ->check(CLI::IsMember(choice.metrics))
        ->capture_default_str();
    app.add_option("--bytes", choice.bytes, "sizes of the samples, separated by commas")
        ->delimiter(',')
        ->check(CLI::Range(std::size_t{16}, std::size_t{64} << 20))
        ->capture_default_str();
    app.add_option("--json", json, "also write the figures to this file");
    CLI11_PARSE(app, argc, argv);
    // What this system's middleware has to say, for the processes that are forked too.
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    try {
        Effort effort;
        if (quick) {
            effort = {milliseconds(1000), milliseconds(300), milliseconds(500), milliseconds(1000)};
            runs = app.count("--runs") > 0 ? runs : 1;
        }
        const std::vector<System> systems = Chosen(only);
        if (systems.empty()) {
            throw std::runtime_error("none of the named systems is there");
        }
        Report report;
        for (int run = 0; run < runs; ++run) {
            MeasureOnce(systems, choice, effort, report);
        }
        report.Print();
        if (!json.empty()) {
            report.WriteJson(json);
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kvo-peer-benchmark: " << error.what() << std::endl;
        return 1;
    }
}

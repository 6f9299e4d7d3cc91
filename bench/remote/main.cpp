// One end of one system between two hosts. scripts/bench-remote starts both.
#include "account.h"
#include "domain_configuration.h"
#include "ends.h"

#include <CLI/CLI.hpp>
#include <log4cplus/configurator.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kvo::bench;

struct System {
    std::unique_ptr<Sender> (*send)(const Link&);
    void (*receive)(const Link&, const Taken&);
};

const std::map<std::string, System>& Systems() {
    static const std::map<std::string, System> systems = {
        {"kvo", {SendByKvo, ReceiveByKvo}},
        {"dds", {SendByDds, ReceiveByDds}},
        {"zeromq", {SendByZeroMq, ReceiveByZeroMq}},
        {"tcp", {SendByTcp, ReceiveByTcp}},
    };
    return systems;
}

// @return samples a second, from the first that was sent to the last that came.
double Send(Sender& sender, Progress& progress, const Link& link, double seconds, double rate) {
    std::vector<unsigned char> payload(link.bytes);
    // Until the other end has had one, the way is not open.
    while (progress.ready.load(std::memory_order_relaxed) == 0) {
        sender.Send(payload.data(), payload.size());
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto window = static_cast<std::uint64_t>(std::max(1, link.buffers / 2));
    // What an earlier sender had left behind does not count.
    const std::uint64_t before = progress.received.load(std::memory_order_relaxed);
    const auto received = [&progress, before] {
        return progress.received.load(std::memory_order_relaxed) - before;
    };
    const std::uint64_t begin = Now();
    const auto end = begin + static_cast<std::uint64_t>(seconds * 1e9);
    std::uint64_t sent = 0;
    for (std::uint64_t now = begin; now < end; now = Now()) {
        if (rate > 0) {
            const auto due =
                begin + static_cast<std::uint64_t>(static_cast<double>(sent) * 1e9 / rate);
            if (now < due) {
                std::this_thread::sleep_for(std::chrono::nanoseconds(due - now));
            }
        } else if (sent >= received() + window) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            continue;
        }
        const std::uint64_t stamp = Now();
        std::memcpy(payload.data(), &stamp, sizeof stamp);
        sender.Send(payload.data(), payload.size());
        ++sent;
    }
    for (int i = 0; i < 200 && received() < sent; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (received() == 0) {
        throw std::runtime_error("none of " + std::to_string(sent) + " samples came");
    }
    const std::uint64_t last = progress.last_ns.load(std::memory_order_relaxed);
    return static_cast<double>(received()) * 1e9 / static_cast<double>(last - begin);
}

// What the environment says goes before, as it does for a broker.
void ConfigureEngineAsBrokersDo() {
    std::string settings = kvo::brokerd::dds::DomainConfiguration({}, "");
    if (const char* const more = std::getenv("CYCLONEDDS_URI"); more != nullptr && *more != 0) {
        settings += std::string(",") + more;
    }
    ::setenv("CYCLONEDDS_URI", settings.c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("One end of one system between two hosts.");
    std::string system;
    std::string progress_file;
    bool receives = false;
    bool as_brokers = false;
    double seconds = 3;
    double rate = 0;
    Link link{"", "wkp.rr://127.0.0.1:5000", 4096, 64};
    app.add_option("SYSTEM", system)->required();
    app.add_flag("--receive", receives);
    app.add_flag("--as-brokers", as_brokers, "DDS is configured as by a broker");
    app.add_option("--peer", link.peer)->required();
    app.add_option("--progress", progress_file)->required();
    app.add_option("--bytes", link.bytes);
    app.add_option("--buffers", link.buffers);
    app.add_option("--seconds", seconds);
    app.add_option("--rate", rate, "samples a second; 0: as fast as they arrive");
    CLI11_PARSE(app, argc, argv);
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    try {
        if (as_brokers) {
            ConfigureEngineAsBrokersDo();
        }
        Progress& progress = Progress::At(progress_file);
        const System& ends = Systems().at(system);
        if (!receives) {
            const auto sender = ends.send(link);
            std::cout << Send(*sender, progress, link, seconds, rate) << std::endl;
            return 0;
        }
        static Account account(progress);
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        std::thread([&] {
            ends.receive(link, [](const unsigned char* payload) { account.Take(payload); });
        }).detach();
        int signal = 0;
        sigwait(&signals, &signal);
        std::cout << account.Json() << std::endl;
        std::quick_exit(0);
    } catch (const std::exception& error) {
        std::cerr << "kvo-remote-peer: " << error.what() << std::endl;
        return 1;
    }
}

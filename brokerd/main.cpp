// The broker as a program: options, log, signals.
#include "kvo/KvoLogger.h"
#include "kvo/brokerd/broker.h"

#include <CLI/CLI.hpp>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <pthread.h>

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

log4cplus::Logger LogToStandardError(log4cplus::LogLevel level) {
    log4cplus::SharedAppenderPtr appender(
        new log4cplus::ConsoleAppender(true /* standard error */, true /* flush each line */));
    appender->setLayout(
        std::make_unique<log4cplus::PatternLayout>("%D{%Y-%m-%d %H:%M:%S.%q} %-5p %m%n"));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.addAppender(appender);
    root.setLogLevel(level);
    return root;
}

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

int Serve(const kvo::brokerd::BrokerOptions& options, log4cplus::LogLevel level) {
    const log4cplus::Initializer logging;
    kvo::KvoLogger logger(LogToStandardError(level));
    const sigset_t stop = StopSignals();
    // Before the broker's threads start, so that the signals wait for us.
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const kvo::brokerd::Broker broker(options, &logger);
    std::cout << "kvo-broker: listening at " << broker.uri() << std::endl;
    int signal_number = 0;
    sigwait(&stop, &signal_number);
    kvo::KvoLogger::WriteToLogger(&logger, 2, "stopping");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Keeps the streams of this host: names, shared memory, notifications.",
                 "kvo-broker"};
    app.footer(
        "The address is printed to standard output, the log goes to standard error. SIGINT and\n"
        "SIGTERM end the broker; streams in use stay for the next one on the directory.\n"
        "Exit codes: 0 success, 1 failure, 2 usage");
    app.set_version_flag("--version", std::string("kvo-broker ") + KVO_VERSION);
    kvo::brokerd::BrokerOptions options;
    auto period = options.heartbeat_period.count();
    auto timeout = options.heartbeat_timeout.count();
    app.add_option("--address", options.address, "Address to listen at")->capture_default_str();
    app.add_option("--port", options.port, "Port of the requests; 0: any free one")
        ->capture_default_str();
    app.add_option("--notification-port", options.notification_port,
                   "Port of the notifications; 0: any free one")
        ->capture_default_str();
    app.add_option(
        "--directory", options.directory,
        "Directory of the stream files; default: /dev/shm/kvo-<user id>-<port>, with port 0 "
        "a new one");
    app.add_option("--heartbeat-period", period,
                   "Seconds between the heartbeats of a client; 0: none")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--heartbeat-timeout", timeout,
                   "Seconds without a heartbeat until a client is unregistered; at least 3")
        ->check(CLI::Range(3, 1'000'000))
        ->capture_default_str();
    app.add_option("--max-streams", options.max_streams, "Most streams at a time")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--memory-budget", options.memory_budget_bytes,
                   "Most shared memory of all streams, such as 512MiB; default: half of the file "
                   "system")
        ->transform(CLI::AsSizeValue(false));
    std::string level = "info";
    const std::map<std::string, log4cplus::LogLevel> levels{{"debug", log4cplus::DEBUG_LOG_LEVEL},
                                                            {"info", log4cplus::INFO_LOG_LEVEL},
                                                            {"warning", log4cplus::WARN_LOG_LEVEL},
                                                            {"error", log4cplus::ERROR_LOG_LEVEL}};
    app.add_option("--log-level", level, "debug, info, warning or error")
        ->check(CLI::IsMember(levels))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    options.heartbeat_period = std::chrono::seconds(period);
    options.heartbeat_timeout = std::chrono::seconds(timeout);
    try {
        return Serve(options, levels.at(level));
    } catch (const std::exception& error) {
        std::cerr << "kvo-broker: " << error.what() << '\n';
        return kFailure;
    }
}

// The broker as a program: puts configuration, log, broker, HTTP and signals together.
#include "command_line.h"
#include "gorm/cor/process.h"
#include "http_endpoint.h"
#include "kvo/KvoLogger.h"
#include "kvo/brokerd/broker.h"
#include "log_output.h"
#include "service_manager.h"

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <pthread.h>
#include <sys/prctl.h>
#include <time.h>

namespace {

using namespace kvo::brokerd;

constexpr int kFailure = 1;
// libzmq searches all timers of a thread for each heartbeat of a connection.
constexpr int kTransportThreads = 8;

sigset_t HandledSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGUSR2}) {
        sigaddset(&set, signal_number);
    }
    return set;
}

class Program {
public:
    Program(int argc, char** argv, const CommandLine& line)
        : argc_(argc),
          argv_(argv),
          configuration_(line.configuration),
          log_output_(line.configuration),
          logger_(log_output_.logger()) {}

    int Run();

private:
    void Reload();
    void Drain();
    int AwaitSignal() const;
    void Log(int level, const std::string& text) {
        kvo::KvoLogger::WriteToLogger(&logger_, level, text);
    }

    const int argc_;
    char** const argv_;
    Configuration configuration_;
    LogOutput log_output_;
    kvo::KvoLogger logger_;
    std::unique_ptr<Broker> broker_;
};

int Program::Run() {
    const sigset_t signals = HandledSignals();
    // Before the broker's threads start, so that the signals wait for us.
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    gorm::cor::set_transport_threads(kTransportThreads);
    if (!configuration_.broker.secret_key_file.empty()) {
        ::prctl(PR_SET_DUMPABLE, 0);  // a core would hold the key
    }
    broker_ = std::make_unique<Broker>(configuration_.broker, &logger_);
    std::unique_ptr<HttpEndpoint> http;
    if (configuration_.http_port != 0) {
        http = std::make_unique<HttpEndpoint>(configuration_.http_address, configuration_.http_port,
                                              *broker_);
        Log(2, "health and metrics at http://" + configuration_.http_address + ":" +
                   std::to_string(http->port()));
    }
    std::cout << "kvo-broker: listening at " << broker_->uri() << std::endl;
    TellServiceManager("READY=1");
    for (int signal_number = AwaitSignal(); signal_number != SIGINT && signal_number != SIGTERM;
         signal_number = AwaitSignal()) {
        if (signal_number == SIGUSR2) {
            Drain();
            break;
        }
        Reload();
    }
    TellServiceManager("STOPPING=1");
    Log(2, "stopping");
    return 0;
}

// Gives the service manager its signs of life meanwhile, as long as the broker's loop turns.
int Program::AwaitSignal() const {
    const sigset_t signals = HandledSignals();
    const auto watchdog = WatchdogInterval() / 2;
    for (;;) {
        int signal_number = 0;
        if (watchdog.count() == 0) {
            sigwait(&signals, &signal_number);
            return signal_number;
        }
        const timespec at_most{static_cast<time_t>(watchdog.count() / 1'000'000),
                               static_cast<long>(watchdog.count() % 1'000'000 * 1000)};
        signal_number = sigtimedwait(&signals, nullptr, &at_most);
        if (signal_number > 0) {
            return signal_number;
        }
        broker_->State();
        TellServiceManager("WATCHDOG=1");
    }
}

void Program::Reload() {
    TellServiceManager("RELOADING=1");
    try {
        int ignored = 0;
        const auto line = ReadCommandLine(argc_, argv_, ignored);
        if (!line) {
            throw ConfigurationError("see the lines above");
        }
        for (const std::string& key : NeedingRestart(configuration_, line->configuration)) {
            Log(3, key + " changes with the next start only");
        }
        broker_->Reconfigure(line->configuration.broker);
        log_output_.SetLevel(line->configuration);
        configuration_ = line->configuration;
        Log(2, "configuration read again");
    } catch (const std::exception& error) {
        Log(4, std::string("the configuration stays as it was: ") + error.what());
    }
    TellServiceManager("READY=1");
}

void Program::Drain() {
    Log(2, "draining");
    broker_->Drain();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        int exit_code = 0;
        const auto line = ReadCommandLine(argc, argv, exit_code);
        if (!line) {
            return exit_code;
        }
        if (line->check_only) {
            std::cout << (line->file.empty() ? "the configuration" : line->file) << ": good"
                      << std::endl;
            return 0;
        }
        return Program(argc, argv, *line).Run();
    } catch (const ConfigurationError& error) {
        std::cerr << "kvo-broker: " << error.what() << '\n';
        return kUsage;
    } catch (const std::exception& error) {
        std::cerr << "kvo-broker: " << error.what() << '\n';
        return kFailure;
    }
}

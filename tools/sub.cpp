// kvo sub: the payloads of a stream go to standard output or a file, straight from shared memory.
#include "broker_probe.h"
#include "command.h"
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/os/event_fd.h"
#include "output_stream.h"
#include "stop_signal.h"
#include "tool_log.h"

#include <boost/signals2/connection.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

namespace kvo::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kStreamPoll{50};
constexpr std::chrono::seconds kStatsPeriod{1};

struct SubOptions {
    std::string stream;
    std::string remote;  // URI of the broker of the stream's host; empty: it is this one
    std::string output;
    std::uint64_t count = 0;  // 0: no end
    double timeout_s = 0;     // 0: none
    bool lines = false;
    bool stats = false;
};

StopSignal::Deadline After(Clock::time_point from, double timeout_s) {
    if (timeout_s <= 0) {
        return std::nullopt;
    }
    return from +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_s));
}

// What came and what did not, and the same over the last second.
class Tally {
public:
    void Count(const DataSample& sample) {
        const std::uint64_t sequence = sample.sequence_number();
        // A number that went back belongs to a new publisher, which begins at 1.
        if (next_ != 0) {
            lost_ += sequence >= next_ ? sequence - next_ : sequence - 1;
        }
        next_ = sequence + 1;
        ++samples_;
        bytes_ += static_cast<std::uint64_t>(sample.payload_size());
        last_stamp_ms_ = sample.timestamp_ms();
    }

    void PrintRates(Clock::time_point now) {
        const double seconds = std::chrono::duration<double>(now - rates_from_).count();
        const auto wall_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
        std::fprintf(stderr, "kvo: %.1f samples/s, %.2f MB/s, %llu samples in all, %llu lost",
                     static_cast<double>(samples_ - rates_samples_) / seconds,
                     static_cast<double>(bytes_ - rates_bytes_) / seconds / 1e6,
                     static_cast<unsigned long long>(samples_),
                     static_cast<unsigned long long>(lost_));
        if (samples_ > rates_samples_) {
            std::fprintf(stderr, ", last one %lld ms old",
                         static_cast<long long>(wall_ms) - static_cast<long long>(last_stamp_ms_));
        }
        std::fputc('\n', stderr);
        rates_from_ = now;
        rates_samples_ = samples_;
        rates_bytes_ = bytes_;
    }

    void PrintTotal() const {
        std::cerr << "kvo: received " << samples_ << " samples, " << bytes_ << " bytes; " << lost_
                  << " lost\n";
    }

    std::uint64_t samples() const { return samples_; }
    Clock::time_point rates_due() const { return rates_from_ + kStatsPeriod; }

private:
    std::uint64_t samples_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t lost_ = 0;  // samples that were overwritten before they could be read
    std::uint64_t next_ = 0;  // sequence number that should come; 0: nothing came yet
    std::uint64_t last_stamp_ms_ = 0;
    Clock::time_point rates_from_ = Clock::now();
    std::uint64_t rates_samples_ = 0;
    std::uint64_t rates_bytes_ = 0;
};

void AwaitStream(BrokerProbe& broker, const SubOptions& options, StopSignal::Deadline deadline,
                 StopSignal& stop) {
    while (!stop.requested() && !broker.HasPublisher(options.stream, options.remote)) {
        if (!deadline || Clock::now() >= *deadline) {
            if (!options.remote.empty()) {
                throw CommandFailure(ExitCode::kNothingThere,
                                     "stream '" + options.stream + "' cannot be had from " +
                                         options.remote + ReasonOf(broker, options.stream));
            }
            throw CommandFailure(ExitCode::kNothingThere,
                                 "no publisher has stream '" + options.stream + "' at " +
                                     broker.uri() +
                                     "; kvo ls tells what is there, --timeout waits for it");
        }
        stop.WaitUntil(Clock::now() + kStreamPoll);
    }
}

// @return false: the user wants to end.
bool Register(KvoDataSubscriber& subscriber, BrokerProbe& broker, const ToolLog& log,
              const SubOptions& options, StopSignal& stop) {
    const StopSignal::Deadline deadline = After(Clock::now(), options.timeout_s);
    for (;;) {
        AwaitStream(broker, options, deadline, stop);
        if (stop.requested()) {
            return false;
        }
        const int code =
            subscriber.RegisterSubscriber(broker.uri(), options.stream, options.remote, 1);
        if (code == 1) {
            return true;
        }
        if (code < -1) {
            throw CommandFailure(ExitCode::kRefused,
                                 options.remote.empty()
                                     ? DescribeRefusal(broker, options.stream, code, 0, 0)
                                     : "the broker refused stream '" + options.stream + "' of " +
                                           options.remote + " with code " + std::to_string(code) +
                                           ReasonOf(broker, options.stream));
        }
        // The publisher may have gone since it was seen: then it is waited for again.
        if (broker.HasPublisher(options.stream, options.remote)) {
            throw CommandFailure(ExitCode::kFailure, "subscribing to stream '" + options.stream +
                                                         "'" + log.WhyFailed());
        }
    }
}

// Takes samples and writes them until there is a reason to end.
class Receiver {
public:
    Receiver(KvoDataSubscriber& subscriber, const SubOptions& options, StopSignal& stop)
        : subscriber_(subscriber), options_(options), stop_(stop), output_(options.output) {}

    ExitCode Run() {
        const auto wake = std::make_shared<os::EventFd>();
        // A slot may still run when its connection has ended, so it shares what it touches.
        const boost::signals2::scoped_connection connection =
            subscriber_.connect([wake] { wake->Raise(); });
        StopSignal::Deadline deadline = After(Clock::now(), options_.timeout_s);
        for (;;) {
            const std::uint64_t before = tally_.samples();
            if (!WriteUnread()) {
                return Finish(ExitCode::kSuccess);
            }
            const Clock::time_point now = Clock::now();
            if (tally_.samples() > before) {
                deadline = After(now, options_.timeout_s);
            } else if (deadline && now >= *deadline) {
                return Finish(AfterSilence());
            }
            if (options_.stats && now >= tally_.rates_due()) {
                tally_.PrintRates(now);
            }
            if (!AwaitWake(*wake, deadline)) {
                return Finish(ExitCode::kSuccess);
            }
        }
    }

private:
    // @return false: enough, nobody reads the output any more, or the user wants to end.
    bool WriteUnread() {
        while (const DataSample* sample = subscriber_.ReadData()) {
            tally_.Count(*sample);
            static char newline = '\n';
            std::array<iovec, 2> parts{
                iovec{const_cast<unsigned char*>(sample->payload()),
                      static_cast<std::size_t>(sample->payload_size())},
                iovec{&newline, options_.lines ? std::size_t{1} : std::size_t{0}}};
            if (!output_.Write(parts, stop_)) {
                reader_gone_ = !stop_.requested();
                return false;
            }
            if (tally_.samples() == options_.count || stop_.requested()) {
                return false;
            }
            if (options_.stats && Clock::now() >= tally_.rates_due()) {
                tally_.PrintRates(Clock::now());
            }
        }
        return true;
    }

    // @return false: nobody reads the output any more, or the user wants to end.
    bool AwaitWake(const os::EventFd& wake, StopSignal::Deadline deadline) {
        if (options_.stats && (!deadline || tally_.rates_due() < *deadline)) {
            deadline = tally_.rates_due();
        }
        std::array<pollfd, 2> watched{pollfd{wake.get(), POLLIN, 0}, pollfd{output_.fd(), 0, 0}};
        if (stop_.Wait(watched, deadline) && watched[1].revents != 0) {
            reader_gone_ = true;
            return false;
        }
        wake.Clear();
        return !stop_.requested();
    }

    ExitCode AfterSilence() const {
        const bool incomplete = tally_.samples() < options_.count;
        if (tally_.samples() > 0 && !incomplete) {
            return ExitCode::kSuccess;
        }
        std::cerr << "kvo: no data came on stream '" << options_.stream << "' for "
                  << options_.timeout_s << " s\n";
        return ExitCode::kNothingThere;
    }

    ExitCode Finish(ExitCode code) const {
        // `kvo sub s | head` is no mishap: nothing to say.
        if (!reader_gone_) {
            tally_.PrintTotal();
        }
        return code;
    }

    KvoDataSubscriber& subscriber_;
    const SubOptions& options_;
    StopSignal& stop_;
    OutputStream output_;
    Tally tally_;
    bool reader_gone_ = false;
};

ExitCode Subscribe(const SubOptions& options, const CommonOptions& common) {
    StopSignal stop;
    ToolLog log(common.verbose);
    BrokerProbe broker(common.broker);
    const auto subscriber = KvoDataTransferFactory::CreateSubscriber(log.logger());
    if (!Register(*subscriber, broker, log, options, stop)) {
        return ExitCode::kSuccess;
    }
    log.ShowErrors();
    const ExitCode code = Receiver(*subscriber, options, stop).Run();
    log.HideErrors();
    subscriber->UnregisterSubscriber();
    return code;
}

}  // namespace

void AddSub(CLI::App& app, Action& action) {
    const auto options = std::make_shared<SubOptions>();
    CLI::App* sub =
        app.add_subcommand("sub", "Write the payloads of a stream to standard output or a file");
    sub->add_option("STREAM", options->stream, "Name of the stream")->required();
    sub->add_option("--remote", options->remote,
                    "URI of the broker of the host where the stream is published; default: the "
                    "stream is of this host");
    sub->add_option("-o,--output", options->output, "File to write; default: standard output");
    sub->add_option("-n,--count", options->count, "End after so many samples")
        ->check(CLI::PositiveNumber);
    sub->add_option("--timeout", options->timeout_s,
                    "Seconds to wait for the stream and for each next sample; then the end, with "
                    "exit code 3 if nothing came or --count was not reached. Default: the stream "
                    "must be there, data is waited for without end")
        ->check(CLI::Range(0.001, 1e6));
    sub->add_flag("--lines", options->lines, "A newline after each payload");
    sub->add_flag("--stats", options->stats, "Rates on standard error, every second");
    sub->callback([options, &action] {
        action = [options](const CommonOptions& common) { return Subscribe(*options, common); };
    });
}

}  // namespace kvo::tools

// kvo pub: a file or standard input becomes a stream.
#include "broker_probe.h"
#include "command.h"
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/broker/broker_result.h"
#include "reader_pace.h"
#include "sample_source.h"
#include "stop_signal.h"
#include "tool_log.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>

namespace kvo::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kBrokerPoll{50};
// The library registers again within this once the broker answers, or not at all.
constexpr std::chrono::seconds kReregistration{15};

struct PubOptions {
    std::string stream;
    std::string file;
    int chunk_bytes = 64 * 1024;
    bool lines = false;
    double rate = 0;  // samples per second; 0: as fast as they come
    std::uint64_t count = 0;
    int samples = 64;
    int max_sample_bytes = 0;  // 0: as large as the source's largest
    bool checksum = false;
    bool pace = false;
    std::size_t wait_subscribers = 0;
};

int MaxSampleBytes(const PubOptions& options) {
    return options.max_sample_bytes > 0 ? options.max_sample_bytes : options.chunk_bytes;
}

std::unique_ptr<SampleSource> OpenSource(const PubOptions& options) {
    if (options.lines) {
        return std::make_unique<LineSource>(InputStream(options.file),
                                            static_cast<std::size_t>(MaxSampleBytes(options)));
    }
    if (options.chunk_bytes > MaxSampleBytes(options)) {
        throw CommandFailure(ExitCode::kUsage, "--chunk is larger than --max-size");
    }
    return std::make_unique<ChunkSource>(InputStream(options.file),
                                         static_cast<std::size_t>(options.chunk_bytes));
}

// Spreads samples evenly over time.
class Metronome {
public:
    explicit Metronome(double rate)
        : period_(rate > 0 ? std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(1 / rate))
                           : Clock::duration::zero()) {}

    void AwaitBeat(StopSignal& stop) {
        if (period_ == Clock::duration::zero()) {
            return;
        }
        const Clock::time_point now = Clock::now();
        // A short delay is made up for, a long one is not: that would come as a burst.
        if (now > next_ + std::chrono::milliseconds(100)) {
            next_ = now;
        }
        stop.WaitUntil(next_);
        next_ += period_;
    }

private:
    const Clock::duration period_;
    Clock::time_point next_ = Clock::now();
};

void Register(KvoDataPublisher& publisher, BrokerProbe& broker, const ToolLog& log,
              const PubOptions& options) {
    const bool is_free = broker.Ask(
        [&](DataBrokerRegistrationSync& client) { return client.IsStreamIdFree(options.stream); });
    const int max_sample_bytes = MaxSampleBytes(options);
    if (!is_free) {
        throw CommandFailure(ExitCode::kRefused,
                             DescribeRefusal(broker, options.stream, kStreamInUse, max_sample_bytes,
                                             options.samples));
    }
    publisher.SetBufferSize(max_sample_bytes, options.samples);
    const int code = publisher.RegisterPublisher(broker.uri(), options.stream, options.checksum);
    if (code < -1) {
        throw CommandFailure(
            ExitCode::kRefused,
            DescribeRefusal(broker, options.stream, code, max_sample_bytes, options.samples));
    }
    // The library's success code covers exceptions too, so the broker has the last word.
    if (code != 1 || !broker.HasPublisher(options.stream)) {
        throw CommandFailure(ExitCode::kFailure,
                             "registering stream '" + options.stream + "'" + log.WhyFailed());
    }
}

// Samples written without a broker are discarded, so the source waits instead.
void AwaitBroker(const KvoDataPublisher& publisher, BrokerProbe& broker, const std::string& stream,
                 StopSignal& stop) {
    if (publisher.get_connected_to_broker()) {
        return;
    }
    std::cerr << "kvo: the broker at " << broker.uri() << " is gone; waiting for its return\n";
    std::optional<Clock::time_point> answered;
    const auto registered = [&] {
        try {
            const bool has_publisher = broker.HasPublisher(stream);
            answered = answered.value_or(Clock::now());
            return publisher.get_connected_to_broker() && has_publisher;
        } catch (const CommandFailure&) {
            answered.reset();
            return false;  // not back yet
        }
    };
    while (!stop.requested() && !registered()) {
        if (answered && Clock::now() > *answered + kReregistration) {
            throw CommandFailure(ExitCode::kRefused, "the broker at " + broker.uri() +
                                                         " is back but does not take stream '" +
                                                         stream + "' again; see its log");
        }
        stop.WaitUntil(Clock::now() + kBrokerPoll);
    }
    if (!stop.requested()) {
        std::cerr << "kvo: the broker is back; going on\n";
    }
}

struct Published {
    std::uint64_t samples = 0;
    std::uint64_t bytes = 0;
};

Published PublishAll(KvoDataPublisher& publisher, BrokerProbe& broker, SampleSource& source,
                     ReaderPace* pace, const PubOptions& options, StopSignal& stop) {
    // Half of what is retained: the readers always find work, and nothing unread is overwritten.
    const auto most_unread = static_cast<std::uint64_t>(options.samples / 2);
    Metronome metronome(options.rate);
    Published published;
    while (options.count == 0 || published.samples < options.count) {
        const auto sample = source.Next(stop);
        if (!sample) {
            break;
        }
        metronome.AwaitBeat(stop);
        AwaitBroker(publisher, broker, options.stream, stop);
        if (stop.requested() || (pace != nullptr && !pace->AwaitLag(most_unread, stop))) {
            break;
        }
        publisher.WriteData(0, sample->data(), static_cast<int>(sample->size()), nullptr, 0);
        publisher.PublishData();
        ++published.samples;
        published.bytes += sample->size();
    }
    return published;
}

ExitCode Publish(const PubOptions& options, const CommonOptions& common) {
    StopSignal stop;
    const std::unique_ptr<SampleSource> source = OpenSource(options);
    ToolLog log(common.verbose);
    BrokerProbe broker(common.broker);
    const auto publisher = KvoDataTransferFactory::CreatePublisher(log.logger());
    Register(*publisher, broker, log, options);
    log.ShowErrors();

    std::optional<ReaderPace> pace;
    if (options.pace || options.wait_subscribers > 0) {
        pace.emplace(broker.Ask([&](DataBrokerRegistrationSync& client) {
            return client.GetShmFilePath(options.stream);
        }));
        pace->AwaitReaders(options.wait_subscribers, stop);
    }
    ReaderPace* const keep_pace = options.pace ? &*pace : nullptr;
    const Published published = PublishAll(*publisher, broker, *source, keep_pace, options, stop);
    if (keep_pace != nullptr) {
        // What is unread when the publisher goes can be lost with the stream's file.
        keep_pace->AwaitLag(0, stop);
    }
    log.HideErrors();
    publisher->UnregisterPublisher();
    std::cerr << "kvo: published " << published.samples << " samples, " << published.bytes
              << " bytes\n";
    return ExitCode::kSuccess;
}

}  // namespace

void AddPub(CLI::App& app, Action& action) {
    const auto options = std::make_shared<PubOptions>();
    CLI::App* pub = app.add_subcommand("pub", "Publish a file or standard input as a stream");
    pub->add_option("STREAM", options->stream, "Name of the stream")->required();
    pub->add_option("FILE", options->file, "What to publish; - or nothing: standard input");
    CLI::Option* chunk =
        pub->add_option("--chunk", options->chunk_bytes, "Bytes of each sample (64KiB, 1MiB, ...)")
            ->transform(CLI::AsSizeValue(false))
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
    pub->add_flag("--lines", options->lines, "One sample per line")->excludes(chunk);
    pub->add_option("--rate", options->rate, "Samples per second at most; default: no limit")
        ->check(CLI::Range(0.001, 1e9));
    pub->add_option("--count", options->count, "End after so many samples")
        ->check(CLI::PositiveNumber);
    pub->add_option("--samples", options->samples, "Samples that the stream retains")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    pub->add_option("--max-size", options->max_sample_bytes,
                    "Bytes of the largest sample; default: those of a chunk")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::PositiveNumber);
    pub->add_flag("--checksum", options->checksum, "Let readers check every sample");
    pub->add_flag("--pace", options->pace,
                  "Wait for the slowest reader instead of overwriting what it has not read");
    pub->add_option("--wait-subscribers", options->wait_subscribers,
                    "Begin when so many subscribers on this host read the stream");
    pub->callback([options, &action] {
        action = [options](const CommonOptions& common) { return Publish(*options, common); };
    });
}

}  // namespace kvo::tools

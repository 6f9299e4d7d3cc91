// One end of the system: a publisher or a subscriber of numbered samples whose every byte is known.
//   kvo-end-to-end-peer publisher|subscriber BROKER_URI STREAM SAMPLES BYTES
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/KvoStatisticsClient.h"
#include "kvo/memory/data_sample.h"
#include "kvo/memory/stream_file.h"

#include <log4cplus/log4cplus.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kTopicId = 4711;
constexpr std::uint64_t kRetained = 256;
constexpr std::chrono::minutes kDeadline{10};

struct Arguments {
    std::string broker;
    std::string stream;
    std::uint64_t samples;
    std::size_t bytes;
};

std::uint64_t NowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

// The sample's bytes: a window onto a fixed pattern that moves on with every sample.
class Pattern {
public:
    explicit Pattern(std::size_t bytes) : bytes_(bytes), pattern_(bytes + kPeriod) {
        std::uint64_t state = 88172645463325252U;  // xorshift64
        for (unsigned char& byte : pattern_) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            byte = static_cast<unsigned char>(state);
        }
    }
    const unsigned char* Payload(std::uint64_t number) const {
        return pattern_.data() + number % kPeriod;
    }
    int bytes() const { return static_cast<int>(bytes_); }

    static int Tag(std::uint64_t number) { return static_cast<int>(number % 1'000'003); }
    static std::string Metadata(std::uint64_t number) { return "sample " + std::to_string(number); }

private:
    static constexpr std::size_t kPeriod = 4099;
    std::size_t bytes_;
    std::vector<unsigned char> pattern_;
};

int Publish(const Arguments& arguments, const log4cplus::Logger& logger) {
    const Pattern pattern(arguments.bytes);
    auto publisher = kvo::KvoDataTransferFactory::CreatePublisher(logger);
    publisher->SetBufferSize(pattern.bytes(), kRetained);
    publisher->set_topic_id(kTopicId);
    if (publisher->RegisterPublisher(arguments.broker, arguments.stream, true) != 1) {
        return 1;
    }
    std::cout << "registered" << std::endl;
    const auto file = kvo::StreamFile::Open(kvo::KvoStatisticsClient(nullptr, arguments.broker)
                                                .GetStatistics(arguments.stream)
                                                .text_value);
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    std::uint64_t taken_by_all = 0;
    // Keeps to the pace of the slowest. Whoever has left has all, or tells that he has not.
    const auto wait_for = [&](std::uint64_t taken) {
        while (taken_by_all < taken && std::chrono::steady_clock::now() < deadline) {
            taken_by_all = arguments.samples;
            for (const kvo::ReaderState& reader : file->readers()) {
                // 0: it has not begun yet.
                const std::uint64_t next = std::max<std::uint64_t>(reader.next_sequence, 1);
                taken_by_all = std::min(taken_by_all, next - 1);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(taken_by_all < taken ? 50 : 0));
        }
        return taken_by_all >= taken;
    };
    // Nobody has a place before the subscribers are registered; they say so on standard output.
    std::string go;
    std::getline(std::cin, go);
    for (std::uint64_t number = 1; number <= arguments.samples; ++number) {
        if (number > kRetained && !wait_for(number - kRetained)) {
            return 1;
        }
        const std::string metadata = Pattern::Metadata(number);
        publisher->WriteData(Pattern::Tag(number), pattern.Payload(number), pattern.bytes(),
                             reinterpret_cast<const unsigned char*>(metadata.data()),
                             static_cast<int>(metadata.size()));
        publisher->PublishData();
    }
    return wait_for(arguments.samples) && publisher->UnregisterPublisher() == 1 ? 0 : 1;
}

// What is wrong with the sample; empty: nothing.
std::string FaultOf(const kvo::DataSample& sample, std::uint64_t number, const Pattern& pattern,
                    std::uint64_t not_before_ms) {
    const std::string metadata(reinterpret_cast<const char*>(sample.metadata()),
                               static_cast<std::size_t>(sample.metadata_size()));
    if (sample.sequence_number() != number) {
        return "sequence number " + std::to_string(sample.sequence_number());
    }
    if (sample.sample_tag() != Pattern::Tag(number) || sample.topic_id() != kTopicId) {
        return "tag " + std::to_string(sample.sample_tag()) + ", topic id " +
               std::to_string(sample.topic_id());
    }
    if (metadata != Pattern::Metadata(number)) {
        return "metadata \"" + metadata + "\"";
    }
    if (sample.timestamp_ms() < not_before_ms || sample.timestamp_ms() > NowMs()) {
        return "time stamp " + std::to_string(sample.timestamp_ms());
    }
    if (sample.payload_size() != pattern.bytes() ||
        std::memcmp(sample.payload(), pattern.Payload(number),
                    static_cast<std::size_t>(pattern.bytes())) != 0) {
        return "other bytes";
    }
    return sample.checksum_state() == kvo::ChecksumState::kVerified ? "" : "no checksum";
}

int Subscribe(const Arguments& arguments, const log4cplus::Logger& logger) {
    const Pattern pattern(arguments.bytes);
    auto subscriber = kvo::KvoDataTransferFactory::CreateSubscriber(logger);
    if (subscriber->RegisterSubscriber(arguments.broker, arguments.stream, "", 1) != 1) {
        return 1;
    }
    std::promise<std::string> end;
    std::uint64_t number = 0;  // delivery thread only
    std::uint64_t newest_ms = NowMs();
    bool ended = false;
    const auto connection = subscriber->connect([&] {
        const kvo::DataSample* const sample = subscriber->ReadData();
        if (ended || sample == nullptr) {
            return;
        }
        const std::string fault = FaultOf(*sample, ++number, pattern, newest_ms);
        newest_ms = sample->timestamp_ms();
        ended = !fault.empty() || number == arguments.samples;
        if (ended) {
            end.set_value(
                fault.empty() ? "" : "sample " + std::to_string(number) + " came with " + fault);
        }
    });
    std::cout << "registered" << std::endl;
    auto result = end.get_future();
    const bool done = result.wait_for(kDeadline) == std::future_status::ready;
    const std::string fault = done ? result.get() : "not all samples came in time";
    connection.disconnect();
    subscriber->UnregisterSubscriber();
    std::cout << (fault.empty() ? "complete" : fault) << std::endl;
    return fault.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "kvo-end-to-end-peer: five arguments expected\n";
        return 2;
    }
    const log4cplus::Initializer logging;
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    auto logger = log4cplus::Logger::getRoot();
    logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    const Arguments arguments{argv[2], argv[3], std::stoull(argv[4]), std::stoull(argv[5])};
    return argv[1] == std::string("publisher") ? Publish(arguments, logger)
                                               : Subscribe(arguments, logger);
}

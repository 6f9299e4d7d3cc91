#include "remote/stream_export.h"

#include "kvo/KvoLogger.h"
#include "kvo/memory/memory_accessor.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace kvo::brokerd {
namespace {

// A signal wakes the thread; the time-out is for a publisher that dies between writing and that.
constexpr std::chrono::milliseconds kLongestSleep{200};
constexpr std::chrono::seconds kFarewell{1};

}  // namespace

StreamExport::StreamExport(const Order& order, FederationEngine& engine,
                           std::unique_ptr<gorm::cor::ps::TopicWatch> watch, KvoLogger* logger)
    : epoch_(order.epoch), watch_(std::move(watch)) {
    accessor_ =
        std::make_unique<KvoMemoryAccessor>(order.path, order.stream, logger, /*max_age_ms=*/0,
                                            /*accessor_argument=*/1);
    if (!accessor_->get_is_initialized()) {
        throw std::runtime_error("the stream file " + order.path + " cannot be read");
    }
    accessor_->StartReading();
    writer_ = engine.MakeWriter(order.topic);
    thread_ = std::thread([this] { Run(); });
}

StreamExport::~StreamExport() {
    stopping_.store(true, std::memory_order_relaxed);
    Signal();
    thread_.join();
}

void StreamExport::Abandon() {
    abandoned_.store(true, std::memory_order_relaxed);
}

void StreamExport::Signal() {
    if (watch_ != nullptr) {
        watch_->Wake();
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        signalled_ = true;
    }
    woken_.notify_one();
}

void StreamExport::Run() {
    while (!stopping_.load(std::memory_order_relaxed)) {
        if (watch_ != nullptr) {
            watch_->Refresh();  // before the file, so that no later sample is slept through
        }
        Send();
        if (!stopping_.load(std::memory_order_relaxed)) {
            Sleep();
        }
    }
    Send();
}

void StreamExport::Sleep() {
    if (watch_ != nullptr) {
        watch_->Sleep(kLongestSleep);
        return;
    }
    std::unique_lock lock(mutex_);
    woken_.wait_for(lock, kLongestSleep, [this] { return signalled_; });
    signalled_ = false;
}

void StreamExport::Send() {
    const auto begun = std::chrono::steady_clock::now();
    while (!abandoned_.load(std::memory_order_relaxed)) {
        DataSample* sample = nullptr;
        accessor_->get_data_packet(nullptr, nullptr, nullptr, nullptr, nullptr, &sample);
        // Each time: under back-pressure there is always a next sample, so the loop does not end.
        const ReaderCounters counters = accessor_->reader_counters();
        overrun_.store(counters.lost + counters.checksum_failures, std::memory_order_relaxed);
        sending_ms_.store(sample != nullptr ? sample->timestamp_ms() : 0,
                          std::memory_order_relaxed);
        if (sample == nullptr) {
            break;
        }
        SampleView view;
        view.source_epoch = epoch_;
        view.source_sequence = sample->sequence_number();
        view.timestamp_ms = sample->timestamp_ms();
        view.sample_tag = sample->sample_tag();
        view.topic_id = sample->topic_id();
        view.metadata = sample->metadata();
        view.metadata_bytes = static_cast<std::uint32_t>(sample->metadata_size());
        view.payload = sample->payload();
        view.payload_bytes = static_cast<std::uint32_t>(sample->payload_size());
        if (writer_->Write(view)) {
            samples_.fetch_add(1, std::memory_order_relaxed);
            bytes_.fetch_add(view.payload_bytes, std::memory_order_relaxed);
        } else {
            dropped_.fetch_add(1, std::memory_order_relaxed);
        }
        if (stopping_.load(std::memory_order_relaxed) &&
            std::chrono::steady_clock::now() - begun > kFarewell) {
            break;
        }
    }
}

TransferCounters StreamExport::Counters() const {
    TransferCounters counters;
    counters.samples = samples_.load(std::memory_order_relaxed);
    counters.payload_bytes = bytes_.load(std::memory_order_relaxed);
    counters.overrun = overrun_.load(std::memory_order_relaxed);
    counters.dropped_by_back_pressure = dropped_.load(std::memory_order_relaxed);
    return counters;
}

std::chrono::milliseconds StreamExport::Lag() const {
    const std::uint64_t written_ms = sending_ms_.load(std::memory_order_relaxed);
    if (written_ms == 0) {
        return std::chrono::milliseconds(0);
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(now) -
                        std::chrono::milliseconds(written_ms),
                    std::chrono::milliseconds(0));
}

}  // namespace kvo::brokerd

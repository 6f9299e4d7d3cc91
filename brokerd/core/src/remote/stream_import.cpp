#include "remote/stream_import.h"

#include <chrono>
#include <utility>

namespace kvo::brokerd {
namespace {

constexpr std::chrono::milliseconds kLongestWait{500};

}  // namespace

StreamImport::StreamImport(const Order& order, FederationEngine& engine, Calls calls)
    : epoch_(order.epoch),
      calls_(std::move(calls)),
      file_(order.path),
      reader_(engine.MakeReader(order.topic, order.own_topic)) {
    thread_ = std::thread([this] { Run(); });
}

StreamImport::~StreamImport() {
    stopping_.store(true, std::memory_order_relaxed);  // the thread is joined
    reader_->Wake();
    thread_.join();
}

void StreamImport::Run() {
    const RemoteReader::Receiver receiver = [this](const SampleView& sample) { Take(sample); };
    bool linked = false;
    while (!stopping_.load(std::memory_order_relaxed)) {
        reader_->Take(kLongestWait, receiver);
        if (const bool now = reader_->has_writer(); now != linked) {
            linked = now;
            calls_.linked(now);
        }
        if (std::exchange(other_epoch_, false)) {
            calls_.outdated();
        }
    }
}

void StreamImport::Take(const SampleView& sample) {
    if (sample.source_epoch != epoch_) {
        // Those of a new one stay in the topic's history until its own import requests them.
        other_epoch_ = other_epoch_ || sample.source_epoch > epoch_;
        return;
    }
    if (sample.source_sequence <= last_) {
        return;  // sent again after a disconnection, or on both topics
    }
    if (last_ != 0) {
        lost_.fetch_add(sample.source_sequence - last_ - 1, std::memory_order_relaxed);
    }
    last_ = sample.source_sequence;
    if (!file_.Write(sample)) {
        rejected_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    samples_.fetch_add(1, std::memory_order_relaxed);
    bytes_.fetch_add(sample.payload_bytes, std::memory_order_relaxed);
    calls_.written();
}

TransferCounters StreamImport::Counters() const {
    TransferCounters counters;
    counters.samples = samples_.load(std::memory_order_relaxed);
    counters.payload_bytes = bytes_.load(std::memory_order_relaxed);
    counters.lost_in_transit = lost_.load(std::memory_order_relaxed);
    counters.rejected = rejected_.load(std::memory_order_relaxed);
    return counters;
}

}  // namespace kvo::brokerd

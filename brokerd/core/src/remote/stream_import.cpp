#include "remote/stream_import.h"

#include <chrono>
#include <utility>

namespace kvo::brokerd {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
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
    stopping_.store(true, kRelaxed);  // the thread is joined
    reader_->Wake();
    thread_.join();
}

void StreamImport::Run() {
    const RemoteReader::Receiver receiver = [this](const RemoteSample& sample) { Take(sample); };
    bool linked = false;
    while (!stopping_.load(kRelaxed)) {
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

void StreamImport::Take(const RemoteSample& sample) {
    if (sample.epoch != epoch_) {
        // Those of a new one wait in the topic's history until its own import asks for them.
        other_epoch_ = other_epoch_ || sample.epoch > epoch_;
        return;
    }
    if (sample.sequence <= last_) {
        return;  // sent once more after the link was away, or both together and to us alone
    }
    if (last_ != 0) {
        lost_.fetch_add(sample.sequence - last_ - 1, kRelaxed);
    }
    last_ = sample.sequence;
    ImportedSample imported;
    imported.payload = sample.payload;
    imported.payload_bytes = sample.payload_bytes;
    imported.metadata = sample.metadata;
    imported.metadata_bytes = sample.metadata_bytes;
    imported.sample_tag = sample.sample_tag;
    imported.topic_id = sample.topic_id;
    imported.timestamp_ms = sample.timestamp_ms;
    imported.sequence_number = sample.sequence;
    if (!file_.Write(imported)) {
        not_taken_.fetch_add(1, kRelaxed);
        return;
    }
    samples_.fetch_add(1, kRelaxed);
    bytes_.fetch_add(sample.payload_bytes, kRelaxed);
    calls_.written();
}

TransferState StreamImport::State() const {
    TransferState state;
    state.samples = samples_.load(kRelaxed);
    state.payload_bytes = bytes_.load(kRelaxed);
    state.lost_on_the_way = lost_.load(kRelaxed);
    state.not_taken = not_taken_.load(kRelaxed);
    return state;
}

}  // namespace kvo::brokerd

#include "sample_store.h"

#include <algorithm>

namespace kvo {

SampleStore::SampleStore(int accessor_argument)
    : kept_(static_cast<std::size_t>(std::max(accessor_argument, 1))) {}

DataSample* SampleStore::Add(TakenSample taken) {
    HandedOut& handed_out = samples_.emplace_back();
    handed_out.taken = std::move(taken);  // a copy's bytes stay where they are
    const SlotContent& content = handed_out.taken.content;
    DataSample& sample = handed_out.sample;
    sample.payload_ = handed_out.taken.bytes;
    sample.payload_size_ = static_cast<int>(content.payload_bytes);
    sample.metadata_ = sample.payload_ + content.payload_bytes;
    sample.metadata_size_ = static_cast<int>(content.metadata_bytes);
    sample.sample_tag_ = content.sample_tag;
    sample.topic_id_ = content.topic_id;
    sample.timestamp_ms_ = content.timestamp_ms;
    sample.sequence_number_ = handed_out.taken.sequence_number;
    sample.checksum_state_ = handed_out.taken.checksum_state;
    if (samples_.size() > kept_) {
        GiveSpare(std::move(samples_.front().taken.copy));
        samples_.pop_front();
    }
    return &sample;
}

void SampleStore::GiveSpare(std::vector<unsigned char> spare) {
    if (spare.capacity() > spare_.capacity()) {
        spare_.swap(spare);
    }
}

}  // namespace kvo

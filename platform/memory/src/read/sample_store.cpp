#include "read/sample_store.h"

#include <algorithm>

namespace kvo {

SampleStore::SampleStore(int accessor_argument)
    : kept_(static_cast<std::size_t>(std::max(accessor_argument, 1))) {
    AddPlace();
}

void SampleStore::AddPlace() {
    places_.push_back(std::make_unique<Place>());
    spare_ = places_.size() - 1;
}

[[gnu::hot]] DataSample* SampleStore::HandOut() {
    Place& place = *places_[spare_];
    const SlotContent& content = place.taken.content;
    DataSample& sample = place.sample;
    sample.payload_ = place.taken.bytes;
    sample.payload_size_ = static_cast<int>(content.payload_bytes);
    sample.metadata_ = sample.payload_ + content.payload_bytes;
    sample.metadata_size_ = static_cast<int>(content.metadata_bytes);
    sample.sample_tag_ = content.sample_tag;
    sample.topic_id_ = content.topic_id;
    sample.timestamp_ms_ = content.timestamp_ms;
    sample.sequence_number_ =
        content.source_sequence != 0 ? content.source_sequence : place.taken.sequence_number;
    sample.checksum_state_ = place.taken.checksum_state;
    if (places_.size() <= kept_) {
        AddPlace();
    } else {
        spare_ = spare_ + 1 == places_.size() ? 0 : spare_ + 1;
        spare().pin = {};
    }
    return &sample;
}

}  // namespace kvo

#pragma once

#include <cstdint>

namespace kvo {

enum class ChecksumState {
    kNone,      // the stream carries no checksums
    kVerified,  // computed over metadata and payload and found right
};

/// One sample as a reader sees it: a view of bytes in shared memory (or, where no pin was left,
/// in the reader's own memory) that stay valid and unchanged until `accessor_argument` further
/// samples have been taken from the same accessor (1 when it is below 1).
/// Owned by the accessor. Threads: any, while valid.
class DataSample {
public:
    const unsigned char* payload() const { return payload_; }
    int payload_size() const { return payload_size_; }  // bytes
    const unsigned char* metadata() const { return metadata_; }
    int metadata_size() const { return metadata_size_; }  // bytes
    int sample_tag() const { return sample_tag_; }
    int topic_id() const { return topic_id_; }
    std::uint64_t timestamp_ms() const { return timestamp_ms_; }        // since the Unix epoch
    std::uint64_t sequence_number() const { return sequence_number_; }  // counted from 1
    ChecksumState checksum_state() const { return checksum_state_; }

private:
    friend class SampleStore;
    const unsigned char* payload_ = nullptr;
    const unsigned char* metadata_ = nullptr;
    int payload_size_ = 0;
    int metadata_size_ = 0;
    int sample_tag_ = 0;
    int topic_id_ = 0;
    std::uint64_t timestamp_ms_ = 0;
    std::uint64_t sequence_number_ = 0;
    ChecksumState checksum_state_ = ChecksumState::kNone;
};

}  // namespace kvo

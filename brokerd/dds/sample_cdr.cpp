#include "sample_cdr.h"

#include <cstdint>
#include <cstring>

namespace kvo::brokerd::dds {
namespace {

constexpr std::size_t kHeaderBytes = 4;

class Cursor {
public:
    Cursor(const unsigned char* begin, std::size_t size) : begin_(begin), size_(size) {}

    template <class T>
    bool Read(T& value) {
        if (!Skip((sizeof value - at_ % sizeof value) % sizeof value) ||
            size_ - at_ < sizeof value) {
            return false;
        }
        std::memcpy(&value, begin_ + at_, sizeof value);
        at_ += sizeof value;
        return true;
    }
    bool ReadBytes(const unsigned char*& bytes, std::uint32_t& count) {
        if (!Read(count) || size_ - at_ < count) {
            return false;
        }
        bytes = begin_ + at_;
        at_ += count;
        return true;
    }

private:
    bool Skip(std::size_t bytes) {
        if (size_ - at_ < bytes) {
            return false;
        }
        at_ += bytes;
        return true;
    }

    const unsigned char* const begin_;
    const std::size_t size_;
    std::size_t at_ = 0;
};

}  // namespace

bool ParseSample(const unsigned char* bytes, std::size_t size, SampleView& sample) {
    if (size < kHeaderBytes) {
        return false;
    }
    Cursor cursor(bytes + kHeaderBytes, size - kHeaderBytes);
    return cursor.Read(sample.source_epoch) && cursor.Read(sample.source_sequence) &&
           cursor.Read(sample.timestamp_ms) && cursor.Read(sample.sample_tag) &&
           cursor.Read(sample.topic_id) &&
           cursor.ReadBytes(sample.metadata, sample.metadata_bytes) &&
           cursor.ReadBytes(sample.payload, sample.payload_bytes);
}

}  // namespace kvo::brokerd::dds

#pragma once

#include "kvo/memory/stream_geometry.h"
#include "kvo/os/mapped_file.h"
#include "layout/stream_file_layout.h"

#include <memory>
#include <string>

namespace kvo {

/// An opened pair of data file and control file, checked once; everything that is constant in
/// them has been copied, so that later changes by other processes do not matter.
/// Threads: any.
class Segment {
public:
    using Access = os::MappedFile::Access;

    /// Opens the file at the path. The control file is always mapped for writing, the data file
    /// only for Access::kWrite. Throws std::runtime_error naming file and fault.
    [[nodiscard]] static std::shared_ptr<Segment> Open(const std::string& path, Access access);
    /// The same without taking part: both files are mapped read-only.
    [[nodiscard]] static std::shared_ptr<Segment> Observe(const std::string& path);

    /// The control file of a segment lies beside the data file.
    static std::string ControlPath(const std::string& data_path, const Uuid& uuid);

    const StreamGeometry& geometry() const { return geometry_; }
    const Uuid& uuid() const { return uuid_; }
    std::uint64_t epoch() const { return epoch_; }
    std::uint64_t created_ms() const { return created_ms_; }
    const std::string& stream() const { return stream_; }
    const KeyDigest& key_digest() const { return key_digest_; }
    bool asks_for_checksums() const { return asks_for_checksums_; }
    std::uint32_t index_mask() const { return index_mask_; }

    layout::SharedWords& words() const { return *words_; }
    layout::SharedWriterCounters& writer_counters() const { return *writer_counters_; }
    layout::IndexEntry& index(std::uint64_t version) const { return index_[version & index_mask_]; }
    layout::SlotHeader& slot(std::uint32_t number) const { return slots_[number]; }
    unsigned char* payload(std::uint32_t slot) const {
        return payloads_ + slot * geometry_.slot_stride;
    }
    layout::ControlHeader& control() const { return *control_; }
    layout::ReaderEntry& reader_entry(std::uint32_t number) const {
        return reader_entries_[number];
    }
    layout::ReaderStatistics& reader_statistics(std::uint32_t number) const {
        return reader_statistics_[number];
    }

    bool retired() const {
        // relaxed: what is decided on it may be decided a moment later as well.
        return words_->state.load(std::memory_order_relaxed) != layout::kActive;
    }

private:
    static std::shared_ptr<Segment> Open(const std::string& path, Access data, Access control);
    Segment(os::MappedFile data, const layout::HeaderFields& fields,
            const StreamGeometry& geometry);
    void AttachControl(os::MappedFile control);

    os::MappedFile data_mapping_;
    os::MappedFile control_mapping_;
    StreamGeometry geometry_;
    Uuid uuid_{};
    std::uint64_t epoch_ = 0;
    std::uint64_t created_ms_ = 0;
    std::string stream_;
    KeyDigest key_digest_{};
    bool asks_for_checksums_ = false;
    std::uint32_t index_mask_ = 0;

    layout::SharedWords* words_ = nullptr;
    layout::SharedWriterCounters* writer_counters_ = nullptr;
    layout::IndexEntry* index_ = nullptr;
    layout::SlotHeader* slots_ = nullptr;
    unsigned char* payloads_ = nullptr;
    layout::ControlHeader* control_ = nullptr;
    layout::ReaderEntry* reader_entries_ = nullptr;
    layout::ReaderStatistics* reader_statistics_ = nullptr;
};

}  // namespace kvo

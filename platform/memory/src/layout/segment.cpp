#include "layout/segment.h"

#include "kvo/os/crash_point.h"
#include "kvo/os/file_descriptor.h"
#include "kvo/os/hex.h"
#include "kvo/os/mapped_file.h"
#include "kvo/os/regular_file.h"
#include "layout/geometry.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace kvo {
namespace {

// Between reading the path and opening the control file a successor may replace both.
constexpr int kOpenAttempts = 10;

template <class T>
T* View(const os::MappedFile& mapping, std::uint64_t offset) {
    return reinterpret_cast<T*>(mapping.at(offset));
}

[[noreturn]] void Refuse(const std::string& path, const std::string& fault) {
    throw std::runtime_error(path + " is not usable: " + fault);
}

StreamGeometry GeometryOf(const layout::HeaderFields& fields) {
    StreamGeometry g;
    g.max_payload_bytes = fields.max_payload_bytes;
    g.max_metadata_bytes = fields.max_metadata_bytes;
    g.retained_samples = fields.retained_samples;
    g.pinning_entries = fields.pinning_entries;
    g.pins_per_entry = fields.pins_per_entry;
    g.reclaim_batch = fields.reclaim_batch;
    g.slot_count = fields.slot_count;
    g.slot_stride = fields.slot_stride;
    g.file_bytes = fields.file_bytes;
    g.control_bytes = layout::kControlBytes;
    return g;
}

// Every number of the header is either checked here or never used.
StreamGeometry CheckHeader(const std::string& path, const layout::HeaderFields& fields,
                           std::uint64_t bytes) {
    if (fields.layout_version != layout::kLayoutVersion) {
        Refuse(path, "layout version " + std::to_string(fields.layout_version) + ", known is " +
                         std::to_string(layout::kLayoutVersion));
    }
    if (fields.byte_order != layout::kByteOrderTag) {
        Refuse(path, "foreign byte order");
    }
    if (fields.header_bytes < sizeof(layout::DataHeader) ||
        fields.header_digest != HeaderDigest(fields)) {
        Refuse(path, "damaged header");
    }
    if ((fields.features & layout::kBindingFeatures & ~layout::kKnownFeatures) != 0) {
        Refuse(path, "unknown features " + std::to_string(fields.features));
    }
    const StreamGeometry geometry = GeometryOf(fields);
    if (const std::string fault = CheckGeometry(geometry); !fault.empty()) {
        Refuse(path, "impossible " + fault);
    }
    const FileOffsets offsets = OffsetsOf(geometry);
    if (fields.index_entries != offsets.index_entries ||
        fields.index_offset != layout::kIndexOffset ||
        fields.slot_headers_offset != offsets.slot_headers ||
        fields.payload_offset != offsets.payload ||
        fields.reader_entries != layout::kReaderEntries) {
        Refuse(path, "impossible offsets");
    }
    if (fields.stream_bytes < 1 || fields.stream_bytes >= sizeof fields.stream) {
        Refuse(path, "impossible stream identifier");
    }
    if (fields.file_bytes != bytes) {
        Refuse(path,
               std::to_string(bytes) + " bytes instead of " + std::to_string(fields.file_bytes));
    }
    return geometry;
}

// Null when the file is gone or belongs to another segment: the pair was replaced meanwhile.
std::unique_ptr<os::MappedFile> OpenControl(const std::string& path, const Uuid& uuid,
                                            os::MappedFile::Access access) {
    std::uint64_t bytes = 0;
    os::FileDescriptor file;
    try {
        file = os::OpenRegularFile(path, access, bytes);
    } catch (const std::system_error& error) {
        if (error.code() == std::errc::no_such_file_or_directory) {
            return nullptr;
        }
        throw;
    }
    if (bytes != layout::kControlBytes) {
        Refuse(path, std::to_string(bytes) + " bytes instead of " +
                         std::to_string(layout::kControlBytes));
    }
    auto mapping = std::make_unique<os::MappedFile>(file.get(), bytes, access, path);
    const auto* header = View<layout::ControlHeader>(*mapping, 0);
    // [control-ready] Acquire: pairs with the creator's last write, which the rename orders.
    if (header->magic.load(std::memory_order_acquire) != layout::kControlMagic ||
        header->layout_version != layout::kLayoutVersion ||
        header->reader_entries != layout::kReaderEntries) {
        Refuse(path, "no control file of layout version " + std::to_string(layout::kLayoutVersion));
    }
    if (std::memcmp(header->uuid, uuid.data(), uuid.size()) != 0) {
        return nullptr;
    }
    return mapping;
}

}  // namespace

std::string Segment::ControlPath(const std::string& data_path, const Uuid& uuid) {
    const auto slash = data_path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : data_path.substr(0, slash + 1);
    return folder + os::ToHex(uuid.data(), uuid.size()) + ".pins";
}

std::shared_ptr<Segment> Segment::Open(const std::string& path, Access access) {
    return Open(path, access, Access::kWrite);
}

std::shared_ptr<Segment> Segment::Observe(const std::string& path) {
    return Open(path, Access::kRead, Access::kRead);
}

std::shared_ptr<Segment> Segment::Open(const std::string& path, Access data_access,
                                       Access control_access) {
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        std::uint64_t bytes = 0;
        const os::FileDescriptor file = os::OpenRegularFile(path, data_access, bytes);
        if (bytes < layout::kIndexOffset) {
            Refuse(path, "only " + std::to_string(bytes) + " bytes");
        }
        os::MappedFile data(file.get(), bytes, data_access, path);
        const auto* header = View<layout::DataHeader>(data, 0);
        // [data-ready] Acquire: pairs with the creator's last write, which the rename orders.
        if (header->magic.load(std::memory_order_acquire) != layout::kDataMagic) {
            Refuse(path, "no stream file");
        }
        layout::HeaderFields fields;
        std::memcpy(&fields, &header->fields, sizeof fields);
        const StreamGeometry geometry = CheckHeader(path, fields, bytes);
        KVO_CRASH_POINT("data file opened");
        std::shared_ptr<Segment> segment(new Segment(std::move(data), fields, geometry));
        if (auto control =
                OpenControl(ControlPath(path, segment->uuid_), segment->uuid_, control_access)) {
            segment->AttachControl(std::move(*control));
            KVO_CRASH_POINT("control file opened");
            return segment;
        }
    }
    Refuse(path, "its control file is missing");
}

Segment::Segment(os::MappedFile data, const layout::HeaderFields& fields,
                 const StreamGeometry& geometry)
    : data_mapping_(std::move(data)),
      geometry_(geometry),
      epoch_(fields.epoch),
      created_ms_(fields.created_ms),
      stream_(fields.stream, fields.stream_bytes),
      asks_for_checksums_((fields.features & layout::kFeatureChecksum) != 0) {
    std::copy(std::begin(fields.uuid), std::end(fields.uuid), uuid_.begin());
    std::copy(std::begin(fields.key_digest), std::end(fields.key_digest), key_digest_.begin());
    const FileOffsets offsets = OffsetsOf(geometry);
    index_mask_ = offsets.index_entries - 1;
    words_ = View<layout::SharedWords>(data_mapping_, layout::kWordsOffset);
    writer_counters_ = View<layout::SharedWriterCounters>(data_mapping_, layout::kCountersOffset);
    index_ = View<layout::IndexEntry>(data_mapping_, layout::kIndexOffset);
    slots_ = View<layout::SlotHeader>(data_mapping_, offsets.slot_headers);
    payloads_ = data_mapping_.at(offsets.payload);
}

void Segment::AttachControl(os::MappedFile control) {
    control_mapping_ = std::move(control);
    control_ = View<layout::ControlHeader>(control_mapping_, 0);
    reader_entries_ = View<layout::ReaderEntry>(control_mapping_, layout::kReaderEntriesOffset);
    reader_statistics_ =
        View<layout::ReaderStatistics>(control_mapping_, layout::kReaderStatisticsOffset);
}

}  // namespace kvo

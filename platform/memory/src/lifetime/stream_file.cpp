#include "kvo/memory/stream_file.h"

#include "kvo/os/crash_point.h"
#include "kvo/os/file_access.h"
#include "kvo/os/file_descriptor.h"
#include "kvo/os/fork_guard.h"
#include "kvo/os/mapped_file.h"
#include "kvo/os/new_file.h"
#include "kvo/os/random_bytes.h"
#include "kvo/os/regular_file.h"
#include "kvo/os/system_error.h"
#include "layout/geometry.h"
#include "layout/segment.h"
#include "lifetime/reader_entry.h"
#include "lifetime/segment_state.h"
#include "lifetime/tags.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace kvo {
namespace {

void UnlinkIfThere(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        os::ThrowErrno(errno, "removing " + path);
    }
}

// Of the segment that the path names now; none: it names no stream file.
std::optional<Uuid> UuidAt(const std::string& path) {
    const os::FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    unsigned char bytes[sizeof(layout::DataHeader)];
    if (file.get() < 0 || ::pread(file.get(), bytes, sizeof bytes, 0) != sizeof bytes) {
        return std::nullopt;
    }
    std::uint32_t magic = 0;
    layout::HeaderFields fields;
    std::memcpy(&magic, bytes, sizeof magic);
    std::memcpy(&fields, bytes + offsetof(layout::DataHeader, fields), sizeof fields);
    if (magic != layout::kDataMagic || fields.header_digest != HeaderDigest(fields)) {
        return std::nullopt;
    }
    Uuid uuid;
    std::memcpy(uuid.data(), fields.uuid, uuid.size());
    return uuid;
}

void FillControl(unsigned char* begin, const Uuid& uuid) {
    auto* header = reinterpret_cast<layout::ControlHeader*>(begin);
    header->layout_version = layout::kLayoutVersion;
    header->header_bytes = sizeof(layout::ControlHeader);
    header->reader_entries = layout::kReaderEntries;
    std::memcpy(header->uuid, uuid.data(), uuid.size());
    // [control-ready] Release: a load with acquire of the magic sees the rest of the header.
    header->magic.store(layout::kControlMagic, std::memory_order_release);
}

void FillData(unsigned char* begin, const StreamFile::Creation& creation, const Uuid& uuid) {
    const StreamGeometry& g = creation.geometry;
    const FileOffsets offsets = OffsetsOf(g);
    auto* header = reinterpret_cast<layout::DataHeader*>(begin);
    layout::HeaderFields& fields = header->fields;
    fields.layout_version = layout::kLayoutVersion;
    fields.header_bytes = sizeof(layout::DataHeader);
    fields.byte_order = layout::kByteOrderTag;
    fields.features = creation.checksum ? layout::kFeatureChecksum : 0;
    fields.reader_entries = layout::kReaderEntries;
    std::memcpy(fields.uuid, uuid.data(), uuid.size());
    fields.epoch = creation.epoch;
    fields.max_payload_bytes = g.max_payload_bytes;
    fields.max_metadata_bytes = g.max_metadata_bytes;
    fields.retained_samples = g.retained_samples;
    fields.pinning_entries = g.pinning_entries;
    fields.pins_per_entry = g.pins_per_entry;
    fields.reclaim_batch = g.reclaim_batch;
    fields.slot_count = g.slot_count;
    fields.index_entries = offsets.index_entries;
    fields.slot_stride = g.slot_stride;
    fields.index_offset = layout::kIndexOffset;
    fields.slot_headers_offset = offsets.slot_headers;
    fields.payload_offset = offsets.payload;
    fields.file_bytes = g.file_bytes;
    fields.created_ms =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count());
    std::memcpy(fields.key_digest, creation.key_digest.data(), creation.key_digest.size());
    fields.stream_bytes = static_cast<std::uint32_t>(creation.stream.size());
    std::memcpy(fields.stream, creation.stream.data(), creation.stream.size());
    fields.header_digest = HeaderDigest(fields);
    // [data-ready] Release: a load with acquire of the magic sees the whole header.
    header->magic.store(layout::kDataMagic, std::memory_order_release);
}

}  // namespace

StreamFile::StreamFile(std::string path, std::shared_ptr<Segment> segment)
    : path_(std::move(path)), segment_(std::move(segment)) {}

StreamFile::~StreamFile() = default;

std::string StreamFile::control_path() const {
    return Segment::ControlPath(path_, segment_->uuid());
}

const std::string& StreamFile::stream() const {
    return segment_->stream();
}

const Uuid& StreamFile::uuid() const {
    return segment_->uuid();
}

std::uint64_t StreamFile::epoch() const {
    return segment_->epoch();
}

const StreamGeometry& StreamFile::geometry() const {
    return segment_->geometry();
}

const KeyDigest& StreamFile::key_digest() const {
    return segment_->key_digest();
}

bool StreamFile::asks_for_checksums() const {
    return segment_->asks_for_checksums();
}

WriterState StreamFile::writer_state() const {
    return os::InForkedChild() ? WriterState{} : WriterStateOf(*segment_);
}

std::vector<ReaderState> StreamFile::readers() const {
    return os::InForkedChild() ? std::vector<ReaderState>{} : ReaderStatesOf(*segment_);
}

void StreamFile::Retire() {
    if (!os::InForkedChild()) {
        // relaxed: the writer may see it a write later; whether a sample was in time is a race
        // that order does not settle.
        segment_->words().state.store(layout::kRetired, std::memory_order_relaxed);
    }
}

int StreamFile::ReapDeadReaders(ProcessLock& lock) {
    int reaped = 0;
    // Every entry, not only the used ones: a reader may have died between claim and count.
    for (std::uint32_t number = 0; !os::InForkedChild() && number < layout::kReaderEntries;
         ++number) {
        auto& entry = segment_->reader_entry(number);
        // relaxed: only an exchange from this very value follows.
        std::uint64_t owner = entry.owner.load(std::memory_order_relaxed);
        if (owner == 0 || lock.Lives(UnpackOwner(owner))) {
            continue;
        }
        // An entry is taken over before it is cleared, so that of several reapers one clears it
        // and no newly claimed entry is cleared. Killed here, this process is the dead owner.
        if (TakeEntryOver(entry, owner, lock.Join())) {
            ReleaseEntry(entry);
            ++reaped;
        }
    }
    return reaped;
}

bool StreamFile::InUse(const ProcessLock& lock) const {
    if (os::InForkedChild()) {
        return false;
    }
    // relaxed: only the name is used; nothing that the writer wrote is read on its account.
    const std::uint64_t role = segment_->words().writer_role.load(std::memory_order_relaxed);
    if (role != 0 && lock.Resolve(RoleNumber(role), RoleNonce(role))) {
        return true;
    }
    for (std::uint32_t number = 0; number < layout::kReaderEntries; ++number) {
        // relaxed: as above.
        const std::uint64_t owner =
            segment_->reader_entry(number).owner.load(std::memory_order_relaxed);
        if (owner != 0 && lock.Lives(UnpackOwner(owner))) {
            return true;
        }
    }
    return false;
}

void StreamFile::Remove() {
    if (os::InForkedChild()) {
        return;
    }
    // In this order no process finds a data file with its control file missing for good.
    if (UuidAt(path_) == segment_->uuid()) {
        UnlinkIfThere(path_);
    }
    KVO_CRASH_POINT("data file removed");
    UnlinkIfThere(Segment::ControlPath(path_, segment_->uuid()));
}

std::unique_ptr<StreamFile> StreamFile::Create(const Creation& creation) {
    if (os::InForkedChild()) {
        os::ThrowErrno(EPERM, "creating " + creation.path + " in a forked child");
    }
    if (creation.stream.empty() || creation.stream.size() >= sizeof layout::HeaderFields::stream) {
        throw std::invalid_argument("stream identifier of " +
                                    std::to_string(creation.stream.size()) +
                                    " bytes refused: 1 to 255");
    }
    if (const std::string fault = CheckGeometry(creation.geometry); !fault.empty()) {
        throw std::invalid_argument("impossible " + fault);
    }
    Uuid uuid;
    os::FillRandom(uuid.data(), uuid.size());
    const std::string control_path = Segment::ControlPath(creation.path, uuid);
    const os::FileAccess& access = creation.access;
    os::NewFile control(control_path, creation.geometry.control_bytes, access.shared_mode(),
                        access.group);
    KVO_CRASH_POINT("control file made");
    os::NewFile data(std::filesystem::path(control_path).replace_extension(".new").string(),
                     creation.geometry.file_bytes, access.mode, access.group);
    KVO_CRASH_POINT("data file made");
    FillControl(control.begin(), uuid);
    KVO_CRASH_POINT("control file filled");
    FillData(data.begin(), creation, uuid);
    KVO_CRASH_POINT("data file filled");
    // Checked as other processes will check it, while nothing is in place yet.
    auto segment = Segment::Open(data.path(), Segment::Access::kWrite);
    std::unique_ptr<StreamFile> file(new StreamFile(creation.path, std::move(segment)));

    const auto replaced = UuidAt(creation.path);
    if (::rename(data.path().c_str(), creation.path.c_str()) != 0) {
        os::ThrowErrno(errno, "putting " + creation.path + " in place");
    }
    KVO_CRASH_POINT("data file in place");
    data.Keep();
    control.Keep();
    if (replaced) {
        // Dead or failed here, an unused control file stays behind and nothing else.
        ::unlink(Segment::ControlPath(creation.path, *replaced).c_str());
    }
    return file;
}

std::unique_ptr<StreamFile> StreamFile::Open(const std::string& path) {
    if (os::InForkedChild()) {
        os::ThrowErrno(EPERM, "opening " + path + " in a forked child");
    }
    return std::unique_ptr<StreamFile>(
        new StreamFile(path, Segment::Open(path, Segment::Access::kWrite)));
}

}  // namespace kvo

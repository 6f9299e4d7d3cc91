#include "write/accessor_writer.h"

#include "kvo/KvoLogger.h"
#include "kvo/os/regular_file.h"

#include <stdexcept>
#include <utility>

namespace kvo {
namespace {

[[noreturn, gnu::cold, gnu::noinline]] void Refuse(const char* what, std::int64_t bytes,
                                                   std::uint32_t limit) {
    const bool fits = bytes >= 0 && bytes <= limit;
    throw std::invalid_argument(
        std::string("KvoMemoryAccessor: ") + what + " of " + std::to_string(bytes) +
        " bytes refused: " + (fits ? "null pointer" : "0 to " + std::to_string(limit)));
}

std::uint32_t CheckSize(const char* what, std::int64_t bytes, std::uint32_t limit,
                        const unsigned char* data) {
    if (bytes < 0 || bytes > limit || (bytes > 0 && data == nullptr)) {
        Refuse(what, bytes, limit);
    }
    return static_cast<std::uint32_t>(bytes);
}

}  // namespace

bool AccessorWriter::active() const {
    const std::lock_guard lock(mutex_);
    return writer_ != nullptr;
}

void AccessorWriter::Log(int level, const std::string& message) const {
    KvoLogger::WriteToLogger(logger_, level, "KvoMemoryAccessor: " + message);
}

bool AccessorWriter::Start(int max_payload_bytes, int max_metadata_bytes) {
    const std::lock_guard one_at_a_time(open_mutex_);
    try {
        auto segment = Segment::Open(path_, Segment::Access::kWrite);
        const StreamGeometry& geometry = segment->geometry();
        if (std::int64_t{geometry.max_payload_bytes} != max_payload_bytes ||
            std::int64_t{geometry.max_metadata_bytes} != max_metadata_bytes) {
            throw std::runtime_error(
                "its slots are for " + std::to_string(geometry.max_payload_bytes) + " and " +
                std::to_string(geometry.max_metadata_bytes) + " bytes, wanted are " +
                std::to_string(max_payload_bytes) + " and " + std::to_string(max_metadata_bytes));
        }
        Install(std::move(segment));
        return true;
    } catch (const std::exception& error) {
        Log(4, "not the writer of " + path_ + ": " + error.what());
        return false;
    }
}

void AccessorWriter::Reattach() {
    const std::lock_guard one_at_a_time(open_mutex_);
    try {
        auto segment = Segment::Open(path_, Segment::Access::kWrite);
        {
            const std::lock_guard lock(mutex_);
            if (writer_ != nullptr && writer_->segment().uuid() == segment->uuid()) {
                return;
            }
        }
        Install(std::move(segment));
    } catch (const std::exception& error) {
        Log(4, "writing goes on in the old segment of " + path_ + ": " + error.what());
    }
}

void AccessorWriter::Install(std::shared_ptr<Segment> segment) {
    if (segment->stream() != stream_) {
        throw std::runtime_error("it is of stream \"" + segment->stream() + "\", not \"" + stream_ +
                                 "\"");
    }
    auto lock_file = ProcessLock::ForDirectory(os::DirectoryOf(path_));
    auto writer = std::make_unique<SampleWriter>(std::move(segment), std::move(lock_file));
    const std::lock_guard lock(mutex_);
    writer_.swap(writer);
    discard_logged_ = false;
    drop_logged_ = false;
}

void AccessorWriter::Close() {
    const std::lock_guard lock(mutex_);
    writer_.reset();
}

[[gnu::hot]] void AccessorWriter::Write(SampleView& sample, std::int64_t payload_bytes,
                                        std::int64_t metadata_bytes) {
    SampleWriter::Outcome outcome{};
    {
        const std::lock_guard lock(mutex_);
        if (writer_ == nullptr) {
            throw std::logic_error("KvoMemoryAccessor: not the writer of " + path_);
        }
        const StreamGeometry& geometry = writer_->segment().geometry();
        sample.payload_bytes =
            CheckSize("payload", payload_bytes, geometry.max_payload_bytes, sample.payload);
        sample.metadata_bytes =
            CheckSize("metadata", metadata_bytes, geometry.max_metadata_bytes, sample.metadata);
        // relaxed: a setting.
        outcome = writer_->Write(sample, compute_checksum_.load(std::memory_order_relaxed));
    }
    if (outcome != SampleWriter::Outcome::kWritten) {
        LogOnce(outcome);
    }
}

// Once per segment and kind.
void AccessorWriter::LogOnce(SampleWriter::Outcome outcome) {
    std::string message;
    {
        const std::lock_guard lock(mutex_);
        if (outcome == SampleWriter::Outcome::kDropped) {
            if (!std::exchange(drop_logged_, true)) {
                message = "sample dropped, no slot of " + path_ +
                          " is free: a process wrote another reader's entry";
            }
        } else if (writer_ != nullptr && !std::exchange(discard_logged_, true)) {
            message = "sample discarded, the segment of " + path_ + " (epoch " +
                      std::to_string(writer_->segment().epoch()) +
                      ") is retired; so are those that follow";
        }
    }
    if (!message.empty()) {
        Log(3, message);
    }
}

WriterCounters AccessorWriter::counters() const {
    const std::lock_guard lock(mutex_);
    return writer_ != nullptr ? writer_->counters() : WriterCounters{};
}

}  // namespace kvo

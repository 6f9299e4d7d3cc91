#pragma once

#include "kvo/memory/counters.h"
#include "kvo/memory/data_available.h"
#include "kvo/memory/data_sample.h"
#include "kvo/memory_export.h"

#include <cstdint>
#include <memory>
#include <string>

namespace kvo {

class KvoLogger;

/// One process's end of a stream's shared memory: its one writer, or one of its readers. The
/// file is made by the broker; the accessor opens it. Protocol: docs/stream-file.md.
/// Threads: any operation from any thread, several at once. No operation waits for another
/// process.
class KVO_MEMORY_EXPORT KvoMemoryAccessor {
public:
    /// Opens the stream file read-only; on failure the accessor is not initialised and the reason
    /// is logged.
    /// @param max_age_ms   a reader never returns samples that are older; 0: any age.
    /// @param accessor_argument how many samples taken by get_data_packet stay valid; below 1: 1.
    /// @param logger       not owned, must outlive the accessor; may be null.
    KvoMemoryAccessor(const std::string& shm_file_path, const std::string& data_stream_identifier,
                      KvoLogger* logger, unsigned long max_age_ms, int accessor_argument);
    KvoMemoryAccessor(const KvoMemoryAccessor&) = delete;
    KvoMemoryAccessor& operator=(const KvoMemoryAccessor&) = delete;
    virtual ~KvoMemoryAccessor();

    bool get_is_initialized() const;

    /// Makes this the stream's one writer and checks the geometry (bytes). On a mismatch, or when
    /// a living writer is there, the accessor is not initialised any more and the reason logged.
    void SetSizeConstraints(int max_data_sample_size, int max_metadata_size);
    void set_compute_checksum(bool compute);

    /// Writer: maps the segment that is at the path now, with the geometry of its header, and
    /// takes the writer's role. Reader: as OpenSharedMemory, then Reset and, if reading had been
    /// started, StartReading. Without a usable file at the path the old mapping stays.
    void Reattach();

    /// Copies one sample with its metadata into the next free slot and makes it the newest.
    /// @param slot_index -1: the accessor picks the slot; nothing else is accepted.
    /// @param timestamp_ms since the Unix epoch.
    /// Throws std::invalid_argument for a size that is negative or too large, before anything is
    /// written; std::logic_error when this is not a writer. On a retired segment the sample is
    /// discarded, counted and logged once. Never blocks for a reader, allocates nothing.
    void WriteData(int slot_index, int topic_id, int sample_tag, const unsigned char* payload,
                   int payload_size, const unsigned char* metadata, int metadata_size,
                   unsigned long timestamp_ms);

    /// Positions an accessor without a place at the oldest retained sample that is young enough,
    /// otherwise goes on from its place; allows signalling.
    void StartReading();
    /// Ends signalling only.
    void StopReading();
    /// Raises DataAvailableSignal, on the calling thread, once for each unread sample that has
    /// not been signalled. On a retired or closed segment it opens a newer one at the path.
    void NewData();
    void set_pub_unreg(bool publisher_gone);
    /// Leaves the segment; samples that were handed out stay valid.
    void CloseSharedMemory();
    /// @return 1 opened (or already the current one: nothing changes), -1 failed: nothing changes.
    [[nodiscard]] int OpenSharedMemory();
    /// Begins anew when the epoch has changed; keeps its place when it has not.
    void Reset();

    DataAvailable& DataAvailableSignal();

    /// Takes the next unread sample. Every pointer may be null.
    /// @param stream           out: stream identifier
    /// @param samples          in: most samples wanted (1 is taken); out: unread samples left.
    ///                         Null: 1 is taken, which disturbs a busy writer less than counting
    /// @param sample_tag       out; @param sequence_number out, -1: none
    /// @param timestamp_ms     out, 0: none
    /// @param sample           out, null: none; owned by the accessor
    void get_data_packet(std::string* stream, unsigned int* samples, int* sample_tag,
                         long* sequence_number, unsigned long* timestamp_ms, DataSample** sample);

    ReaderCounters reader_counters() const;
    WriterCounters writer_counters() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvo

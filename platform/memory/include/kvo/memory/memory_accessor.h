#pragma once

#include "kvo/memory/data_sample.h"
#include "kvo/memory_export.h"
#include "kvo/os/light_mutex.h"

#include <boost/signals2/signal.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kvo {

class KvoLogger;

/// Runs every connected slot, whatever one of them throws; exceptions are logged.
struct KVO_MEMORY_EXPORT IsolatingCombiner {
    using result_type = void;
    KvoLogger* logger = nullptr;
    template <class Iterator>
    void operator()(Iterator first, Iterator last) const {
        for (; first != last; ++first) {
            try {
                *first;
            } catch (const std::exception& error) {
                Report(error.what());
            } catch (...) {
                Report("not a std::exception");
            }
        }
    }
    void Report(const char* what) const;
};

/// Like any signal of its kind, but for the mutex: it is raised for every sample.
using DataAvailable =
    boost::signals2::signal<void(), IsolatingCombiner, int, std::less<int>, boost::function<void()>,
                            boost::function<void(const boost::signals2::connection&)>,
                            os::LightMutex>;

/// What a reader did not get, by cause. Samples of all epochs since the accessor was made.
struct ReaderCounters {
    std::uint64_t read = 0;
    std::uint64_t lost = 0;        // overwritten before this reader came to them
    std::uint64_t superseded = 0;  // unread in an epoch that was left
    std::uint64_t expired = 0;     // older than the reader's maximum age
    std::uint64_t checksum_failures = 0;
    std::uint64_t copied = 0;  // of the read ones: without a pin, from a copy
};

struct WriterCounters {
    std::uint64_t written = 0;  // samples in this segment
    std::uint64_t dropped = 0;  // no free slot (only after a process wrote another reader's entry)
    std::uint64_t discarded = 0;  // written to a retired segment
};

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

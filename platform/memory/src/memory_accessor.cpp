#include "kvo/memory/memory_accessor.h"

#include "kvo/KvoLogger.h"
#include "kvo/os/fork_guard.h"
#include "read/accessor_reader.h"
#include "write/accessor_writer.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <stdexcept>
#include <string>

namespace kvo {
namespace {

constexpr std::uint64_t kNanosecondsPerMs = 1'000'000;
constexpr std::uint64_t kLongestMs = std::numeric_limits<std::uint64_t>::max() / kNanosecondsPerMs;
constexpr std::uint64_t kMostUnread = std::numeric_limits<unsigned int>::max();

AccessorReader::Settings ReaderSettings(const std::string& path, const std::string& stream,
                                        KvoLogger* logger, unsigned long max_age_ms,
                                        int accessor_argument) {
    return {path, stream, logger,
            std::min<std::uint64_t>(max_age_ms, kLongestMs) * kNanosecondsPerMs, accessor_argument};
}

template <class T, class Value>
void SetOut(T* out, Value value) {
    if (out != nullptr) {
        *out = static_cast<T>(value);
    }
}

}  // namespace

// Threads: any. `initialized` is set by the last opening; the halves have their own locks.
class KvoMemoryAccessor::Impl {
public:
    explicit Impl(const AccessorReader::Settings& settings)
        : stream(settings.stream),
          reader(std::make_shared<AccessorReader>(settings)),
          writer(settings.path, settings.stream, settings.logger) {
        os::WatchForks();
        set_initialized(!os::InForkedChild() && reader->Open());
    }
    ~Impl() {
        if (!os::InForkedChild()) {
            reader->End();
        }
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // relaxed: says how the last opening ended and publishes nothing.
    bool initialized() const { return initialized_.load(std::memory_order_relaxed); }
    void set_initialized(bool value) { initialized_.store(value, std::memory_order_relaxed); }

    const std::string stream;
    const std::shared_ptr<AccessorReader> reader;
    AccessorWriter writer;

private:
    std::atomic<bool> initialized_{false};
};

KvoMemoryAccessor::KvoMemoryAccessor(const std::string& shm_file_path,
                                     const std::string& data_stream_identifier, KvoLogger* logger,
                                     unsigned long max_age_ms, int accessor_argument)
    : impl_(std::make_unique<Impl>(ReaderSettings(shm_file_path, data_stream_identifier, logger,
                                                  max_age_ms, accessor_argument))) {}

KvoMemoryAccessor::~KvoMemoryAccessor() = default;

bool KvoMemoryAccessor::get_is_initialized() const {
    return !os::InForkedChild() && impl_->initialized();
}

void KvoMemoryAccessor::SetSizeConstraints(int max_data_sample_size, int max_metadata_size) {
    if (os::InForkedChild()) {
        return;
    }
    const bool started = impl_->writer.Start(max_data_sample_size, max_metadata_size);
    if (started) {
        impl_->reader->Close();  // a writer does not read
    }
    impl_->set_initialized(started);
}

void KvoMemoryAccessor::set_compute_checksum(bool compute) {
    impl_->writer.set_compute_checksum(compute);
}

void KvoMemoryAccessor::Reattach() {
    if (os::InForkedChild()) {
        return;
    }
    if (impl_->writer.active()) {
        impl_->writer.Reattach();
    } else {
        impl_->reader->Reattach();
    }
}

[[gnu::hot]] void KvoMemoryAccessor::WriteData(int slot_index, int topic_id, int sample_tag,
                                               const unsigned char* payload, int payload_size,
                                               const unsigned char* metadata, int metadata_size,
                                               unsigned long timestamp_ms) {
    if (os::InForkedChild()) {
        return;
    }
    if (slot_index != -1) {
        throw std::invalid_argument("KvoMemoryAccessor: slot index of " +
                                    std::to_string(slot_index) + " refused: only -1");
    }
    SampleView sample;
    sample.payload = payload;
    sample.metadata = metadata;
    sample.sample_tag = sample_tag;
    sample.topic_id = topic_id;
    sample.timestamp_ms = timestamp_ms;
    impl_->writer.Write(sample, payload_size, metadata_size);
}

void KvoMemoryAccessor::StartReading() {
    if (!os::InForkedChild()) {
        impl_->reader->StartReading();
    }
}

void KvoMemoryAccessor::StopReading() {
    if (!os::InForkedChild()) {
        impl_->reader->StopReading();
    }
}

[[gnu::hot]] void KvoMemoryAccessor::NewData() {
    if (!os::InForkedChild() && !impl_->writer.active()) {
        // A slot may destroy this accessor.
        const std::shared_ptr<AccessorReader> reader = impl_->reader;
        reader->NewData();
    }
}

void KvoMemoryAccessor::set_pub_unreg(bool publisher_gone) {
    if (!os::InForkedChild()) {
        impl_->reader->set_publisher_gone(publisher_gone);
    }
}

void KvoMemoryAccessor::CloseSharedMemory() {
    if (!os::InForkedChild()) {
        impl_->reader->Close();
        impl_->writer.Close();
    }
}

int KvoMemoryAccessor::OpenSharedMemory() {
    if (os::InForkedChild() || !impl_->reader->Open()) {
        return -1;
    }
    impl_->set_initialized(true);
    return 1;
}

void KvoMemoryAccessor::Reset() {
    if (!os::InForkedChild()) {
        impl_->reader->Reset();
    }
}

DataAvailable& KvoMemoryAccessor::DataAvailableSignal() {
    return impl_->reader->signal();
}

[[gnu::hot]] void KvoMemoryAccessor::get_data_packet(std::string* stream, unsigned int* samples,
                                                     int* sample_tag, long* sequence_number,
                                                     unsigned long* timestamp_ms,
                                                     DataSample** sample) {
    AccessorReader::Packet packet;
    if (!os::InForkedChild()) {
        packet = impl_->reader->TakeNext(samples == nullptr || *samples > 0, samples != nullptr);
    }
    if (stream != nullptr) {
        *stream = impl_->stream;
    }
    SetOut(samples, std::min(packet.unread, kMostUnread));
    SetOut(sample_tag, packet.sample != nullptr ? packet.sample->sample_tag() : 0);
    SetOut(sequence_number,
           packet.sample != nullptr ? static_cast<long>(packet.sample->sequence_number()) : -1L);
    SetOut(timestamp_ms, packet.sample != nullptr ? packet.sample->timestamp_ms() : 0);
    SetOut(sample, packet.sample);
}

ReaderCounters KvoMemoryAccessor::reader_counters() const {
    return os::InForkedChild() ? ReaderCounters{} : impl_->reader->counters();
}

WriterCounters KvoMemoryAccessor::writer_counters() const {
    return os::InForkedChild() ? WriterCounters{} : impl_->writer.counters();
}

}  // namespace kvo

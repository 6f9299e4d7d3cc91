#include "bench_stream.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace kvo::bench {
namespace {

constexpr char kStream[] = "bench";

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

BenchStream::BenchStream(int payload_bytes, int retained) {
    std::string pattern = "/dev/shm/kvo-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        ThrowErrno("making a directory " + pattern);
    }
    directory_ = pattern;
    StreamFile::Creation creation;
    creation.path = directory_ + "/stream";
    creation.stream = kStream;
    creation.geometry = PlanGeometry(payload_bytes, retained, SpareSlots{});
    creation.epoch = 1;
    file_ = StreamFile::Create(creation);
}

BenchStream::~BenchStream() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::unique_ptr<KvoMemoryAccessor> BenchStream::Writer() const {
    const StreamGeometry& geometry = file_->geometry();
    auto writer = std::make_unique<KvoMemoryAccessor>(file_->path(), kStream, nullptr, 0, 1);
    writer->SetSizeConstraints(static_cast<int>(geometry.max_payload_bytes),
                               static_cast<int>(geometry.max_metadata_bytes));
    if (!writer->get_is_initialized()) {
        throw std::runtime_error("no writer of " + file_->path());
    }
    return writer;
}

std::unique_ptr<KvoMemoryAccessor> BenchStream::ReaderOf(const std::string& path) {
    auto reader = std::make_unique<KvoMemoryAccessor>(path, kStream, nullptr, 0, 1);
    if (!reader->get_is_initialized()) {
        throw std::runtime_error("no reader of " + path);
    }
    reader->StartReading();
    return reader;
}

int BenchStream::slots_in_turn() const {
    const StreamGeometry& geometry = file_->geometry();
    return static_cast<int>(geometry.retained_samples + geometry.reclaim_batch);
}

std::vector<unsigned char*> BenchStream::MapSlots() const {
    const StreamGeometry& geometry = file_->geometry();
    const int file = ::open(file_->path().c_str(), O_RDWR | O_CLOEXEC);
    void* begin = file < 0 ? MAP_FAILED
                           : ::mmap(nullptr, geometry.file_bytes, PROT_READ | PROT_WRITE,
                                    MAP_SHARED, file, 0);
    if (begin == MAP_FAILED) {
        ThrowErrno("mapping " + file_->path());
    }
    ::close(file);
    // The payloads are the end of the file.
    unsigned char* slot = static_cast<unsigned char*>(begin) + geometry.file_bytes -
                          geometry.slot_count * geometry.slot_stride;
    std::vector<unsigned char*> slots;
    for (int i = 0; i < slots_in_turn(); ++i, slot += geometry.slot_stride) {
        slots.push_back(slot);
    }
    return slots;
}

void BenchStream::Write(KvoMemoryAccessor& writer, const unsigned char* payload, int bytes) {
    writer.WriteData(-1, 0, 0, payload, bytes, nullptr, 0, 0);
}

const DataSample* BenchStream::Take(KvoMemoryAccessor& reader) {
    int tag = 0;
    long sequence_number = 0;
    unsigned long timestamp_ms = 0;
    DataSample* sample = nullptr;
    reader.get_data_packet(nullptr, nullptr, &tag, &sequence_number, &timestamp_ms, &sample);
    return sample;
}

Sources::Sources(int bytes) {
    for (unsigned char i = 0; i < 8; ++i) {
        buffers_.emplace_back(static_cast<std::size_t>(bytes), i);
    }
}

}  // namespace kvo::bench

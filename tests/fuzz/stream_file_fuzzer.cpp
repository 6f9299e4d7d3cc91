// Lets the broker, a writer and a reader open and use stream and control files in which anything
// may stand and change at any time. The input is a list of steps: which process does what next, and
// which word of which file is overwritten with what.
#include "kvo/memory/inspection.h"
#include "kvo/memory/process_lock.h"
#include "layout/geometry.h"
#include "layout/segment.h"
#include "sample_stream.h"
#include "temp_directory.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace layout = kvo::layout;
using Bytes = std::vector<unsigned char>;

constexpr char kStream[] = "fuzzed";
constexpr int kPayloadBytes = 200;
constexpr int kMostSteps = 200;  // an input of a thousand steps teaches no more, only later

// Reads numbers from the input; 0 from an input that has ended.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    template <class T>
    T Take() {
        T value{};
        const std::size_t bytes = std::min(left_, sizeof value);
        std::memcpy(&value, data_, bytes);
        data_ += bytes;
        left_ -= bytes;
        return value;
    }

private:
    const std::uint8_t* data_;
    std::size_t left_;
};

Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void Require(bool holds, const std::string& what) {
    if (!holds) {
        std::perror(("violated: " + what).c_str());
        std::abort();
    }
}

// A sound pair of files with some samples, and the wish to begin with it each time.
class Files {
public:
    Files() {
        const auto file = kvo::test::CreateStream(data_path_, kStream, kPayloadBytes, 4,
                                                  kvo::test::Spare(16 << 10));
        const kvo::StreamGeometry geometry = file->geometry();
        control_path_ = file->control_path();
        {
            const auto writer = kvo::test::OpenWriter(data_path_, kStream, kPayloadBytes);
            const Bytes payload(kPayloadBytes, 7);
            for (int i = 0; i < 6; ++i) {
                writer->WriteData(-1, 0, i, payload.data(), kPayloadBytes, nullptr, 0, 1);
            }
        }
        data_ = ReadFile(data_path_);
        control_ = ReadFile(control_path_);
        const kvo::FileOffsets offsets = kvo::OffsetsOf(geometry);
        const auto slots = geometry.slot_count;
        regions_ = {{
            {true, 0, sizeof(layout::DataHeader)},
            {true, layout::kWordsOffset, sizeof(layout::SharedWords)},
            {true, layout::kCountersOffset, sizeof(layout::SharedWriterCounters)},
            {true, layout::kIndexOffset, offsets.index_entries * sizeof(layout::IndexEntry)},
            {true, offsets.slot_headers, slots * sizeof(layout::SlotHeader)},
            {false, 0, sizeof(layout::ControlHeader)},
            {false, layout::kReaderEntriesOffset, 8 * sizeof(layout::ReaderEntry)},
            {false, layout::kReaderStatisticsOffset, 8 * sizeof(layout::ReaderStatistics)},
        }};
    }

    const std::string& path() const { return data_path_; }
    std::string directory() const { return directory_.path(); }

    void Restore() const {
        Write(data_path_, 0, data_.data(), data_.size());
        Write(control_path_, 0, control_.data(), control_.size());
        Resize(data_path_, data_.size());
        Resize(control_path_, control_.size());
    }
    // One word somewhere, in every mapping at once.
    void Overwrite(Input& input) const {
        const Region& region = regions_[input.Take<std::uint8_t>() % regions_.size()];
        const std::size_t bytes = (input.Take<std::uint8_t>() & 1) != 0 ? 8 : 4;
        const std::uint64_t at = input.Take<std::uint16_t>() % (region.bytes / bytes) * bytes;
        const auto value = input.Take<std::uint64_t>();
        Write(region.of_data ? data_path_ : control_path_, region.begin + at, &value, bytes);
    }
    // The header's own digest, so that what stands in it is believed so far.
    void SignHeader() const {
        layout::HeaderFields fields;
        std::ifstream file(data_path_, std::ios::binary);
        file.seekg(offsetof(layout::DataHeader, fields));
        if (file.read(reinterpret_cast<char*>(&fields), sizeof fields)) {
            fields.header_digest = kvo::HeaderDigest(fields);
            Write(data_path_, offsetof(layout::DataHeader, fields), &fields, sizeof fields);
        }
    }
    void Resize(Input& input) const {
        const bool of_data = (input.Take<std::uint8_t>() & 1) != 0;
        Resize(of_data ? data_path_ : control_path_, input.Take<std::uint32_t>() % (256 << 10));
    }

private:
    struct Region {
        bool of_data;
        std::uint64_t begin;
        std::uint64_t bytes;
    };
    static void Write(const std::string& path, std::uint64_t at, const void* bytes,
                      std::size_t count) {
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        Require(::pwrite(file, bytes, count, static_cast<off_t>(at)) == static_cast<ssize_t>(count),
                path);
        ::close(file);
    }
    static void Resize(const std::string& path, std::uint64_t bytes) {
        Require(::truncate(path.c_str(), static_cast<off_t>(bytes)) == 0, path);
    }

    const kvo::test::TempDirectory directory_;
    const std::string data_path_ = directory_.path() / "stream";
    std::string control_path_;
    Bytes data_;
    Bytes control_;
    std::array<Region, 8> regions_{};
};

class Participants {
public:
    explicit Participants(const Files& files) : files_(files) {}

    void Step(Input& input) {
        switch (input.Take<std::uint8_t>() % 16) {
            case 0:
            case 1:
            case 2:
                return files_.Overwrite(input);
            case 3:
                return files_.SignHeader();
            case 4:
                if (unused()) {  // a peer that cuts a mapped file short is no fault to survive
                    files_.Resize(input);
                }
                return;
            case 5:
                reader_ =
                    std::make_unique<kvo::KvoMemoryAccessor>(files_.path(), kStream, nullptr, 0, 2);
                return reader_->StartReading();
            case 6:
                writer_ = kvo::test::OpenWriter(files_.path(), kStream, kPayloadBytes);
                return;
            case 7:
                return OpenAsBroker();
            case 8:
            case 9:
                return Read(input.Take<std::uint8_t>() % 8);
            case 10:
            case 11:
                return Write(input.Take<std::uint8_t>() % 16);
            case 12:
                if (reader_ != nullptr) {
                    reader_->NewData();
                    reader_->Reattach();
                }
                return;
            case 13:
                if (broker_ != nullptr) {
                    broker_->ReapDeadReaders(*lock_);
                    static_cast<void>(broker_->InUse(*lock_));
                }
                return;
            case 14:
                return Inspect();
            case 15:
                return Leave(input.Take<std::uint8_t>() % 3);
        }
    }

private:
    bool unused() const { return !reader_ && !writer_ && !broker_; }

    void OpenAsBroker() {
        try {
            broker_ = kvo::StreamFile::Open(files_.path());
            broker_->readers();
            broker_->writer_state();
        } catch (const std::runtime_error&) {  // refused; anything else is a fault
        }
    }

    void Read(int samples) const {
        for (int i = 0; reader_ != nullptr && i < samples; ++i) {
            std::string stream;
            unsigned int count = 1;
            int tag = 0;
            long sequence_number = 0;
            unsigned long timestamp_ms = 0;
            kvo::DataSample* sample = nullptr;
            reader_->get_data_packet(&stream, &count, &tag, &sequence_number, &timestamp_ms,
                                     &sample);
            if (sample == nullptr) {
                return;
            }
            const std::size_t bytes = static_cast<std::size_t>(sample->payload_size()) +
                                      static_cast<std::size_t>(sample->metadata_size());
            const Bytes copy(sample->payload(), sample->payload() + bytes);
            Require(copy.size() == bytes && sequence_number > 0, "a sample with a number");
        }
    }

    void Write(int samples) const {
        const Bytes payload(kPayloadBytes, 9);
        for (int i = 0; writer_ != nullptr && writer_->get_is_initialized() && i < samples; ++i) {
            writer_->WriteData(-1, 0, i, payload.data(), kPayloadBytes, payload.data(), i, 2);
        }
    }

    void Inspect() const {
        try {
            static_cast<void>(kvo::InspectStreamFile(files_.path()));
            static_cast<void>(kvo::CheckStreamFile(files_.path()));
        } catch (const std::runtime_error&) {  // refused
        }
    }

    void Leave(int who) {
        who == 0 ? reader_.reset() : who == 1 ? writer_.reset() : broker_.reset();
    }

    const Files& files_;
    const std::shared_ptr<kvo::ProcessLock> lock_ =
        kvo::ProcessLock::ForDirectory(files_.directory());
    std::unique_ptr<kvo::KvoMemoryAccessor> reader_;
    std::unique_ptr<kvo::KvoMemoryAccessor> writer_;
    std::unique_ptr<kvo::StreamFile> broker_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Files files;
    files.Restore();
    Input input(data, size);
    Participants participants(files);
    for (int i = 0; i < kMostSteps && !input.empty(); ++i) {
        participants.Step(input);
    }
    return 0;
}

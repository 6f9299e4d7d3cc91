// Every named point of the stream file's protocol, hit once with SIGKILL and once with SIGSTOP:
// a process that dies or stops there harms no other.
#include "crash_points.h"

#include "kvo/memory/inspection.h"
#include "sample_stream.h"

#include <algorithm>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using kvo::KvoMemoryAccessor;
using kvo::StreamFile;
using namespace kvo::stress;

constexpr int kPayload = 64;
constexpr std::uint64_t kRetained = 4;
constexpr const char* kStream = "crash/points";

std::string PathIn(const std::string& directory) {
    return directory + "/stream";
}

std::vector<unsigned char> ContentOf(std::uint64_t number) {
    return std::vector<unsigned char>(kPayload, static_cast<unsigned char>(number));
}

std::unique_ptr<KvoMemoryAccessor> Open(const std::string& path) {
    return std::make_unique<KvoMemoryAccessor>(path, kStream, nullptr, 0, 1);
}

std::unique_ptr<KvoMemoryAccessor> OpenWriter(const std::string& path) {
    return kvo::test::OpenWriter(path, kStream, kPayload);
}

// Continues the numbers of the segment, so that a sample's bytes tell its number.
void Write(KvoMemoryAccessor& writer, int samples) {
    for (int i = 0; i < samples; ++i) {
        const auto content = ContentOf(writer.writer_counters().written + 1);
        writer.WriteData(-1, 0, 0, content.data(), kPayload, nullptr, 0, 1);
    }
    Demand(writer.writer_counters().dropped == 0, "the writer found no slot");
}

// One reader entry may pin: a second reader copies.
std::unique_ptr<StreamFile> Create(const std::string& path, std::uint64_t epoch) {
    return kvo::test::CreateStream(path, kStream, kPayload, kRetained, kvo::test::Spare(0), epoch);
}

// Takes what is there and looks at every byte; the sequence numbers.
std::vector<std::uint64_t> TakeAll(KvoMemoryAccessor& reader) {
    std::vector<std::uint64_t> numbers;
    while (const kvo::DataSample* const sample = kvo::test::Take(reader)) {
        numbers.push_back(sample->sequence_number());
        const auto content = ContentOf(sample->sequence_number());
        Demand(std::equal(content.begin(), content.end(), sample->payload()),
               "sample " + std::to_string(sample->sequence_number()) + " is not whole");
    }
    return numbers;
}

void DemandNewest(const std::string& path, std::uint64_t newest) {
    const auto reader = Open(path);
    reader->StartReading();
    const auto numbers = TakeAll(*reader);
    Demand(numbers.size() == kRetained && numbers.back() == newest &&
               numbers.front() == newest - kRetained + 1,
           "a fresh reader does not get the newest samples");
}

void DemandSound(const std::string& path) {
    for (const std::string& fault : kvo::CheckStreamFile(path)) {
        throw std::runtime_error("the file is broken: " + fault);
    }
}

// ---- What the processes do that are stopped on their way

void BeWriter(const std::string& directory) {
    const auto writer = OpenWriter(PathIn(directory));
    if (writer->get_is_initialized()) {  // another may have come before a stopped one
        Write(*writer, 60);
    }
}

void BeReader(const std::string& directory) {
    const std::string path = PathIn(directory);
    const auto pinning = Open(path);
    const auto copying = Open(path);
    for (KvoMemoryAccessor* reader : {pinning.get(), copying.get()}) {
        reader->StartReading();
        TakeAll(*reader);
    }
}

void BeCreator(const std::string& directory) {
    Create(PathIn(directory), 2)->Remove();
}

// ---- The others

/// The rest of the stream's users: its keeper and, for others than a writer, a writer.
class StreamEncounter final : public Encounter {
public:
    StreamEncounter(std::string role, const std::string& directory)
        : role_(std::move(role)),
          path_(PathIn(directory)),
          lock_(kvo::ProcessLock::ForDirectory(directory)) {
        lock_->Join();
        file_ = Create(path_, 1);
        if (role_ != "writer") {
            writer_ = OpenWriter(path_);
            Write(*writer_, 20);
        }
    }

    void CheckOthers(int signal) override {
        if (role_ == "writer") {
            CheckSuccession(signal);
        } else if (role_ == "reader") {
            Write(*writer_, 100);
            DemandNewest(path_, 120);
            DemandSound(path_);
        } else {
            CheckCreation(signal);
        }
    }
    void CheckEnd(int signal) override {
        if (signal == SIGKILL) {
            Demand(file_->ReapDeadReaders(*lock_) >= 0 && file_->readers().empty(),
                   "reader entries are left");
        } else if (role_ != "creator") {  // which has removed it
            DemandSound(path_);
        }
    }

private:
    void CheckSuccession(int signal) {
        DemandSound(path_);
        if (signal == SIGSTOP) {
            // It lives, so its segment is given up for a new one, which it cannot touch.
            auto next = Create(path_, 2);
            file_->Retire();
            file_ = std::move(next);
        }
        writer_ = OpenWriter(path_);
        Demand(writer_->get_is_initialized(), "the writer's role is not free");
        Write(*writer_, 30);
        DemandNewest(path_, writer_->writer_counters().written);
        DemandSound(path_);
    }

    void CheckCreation(int signal) {
        // Whatever there is, a new stream can be made; until then the old one goes on.
        Write(*writer_, 10);
        if (signal == SIGKILL) {
            file_->Retire();
            file_ = Create(path_, 3);
            writer_ = OpenWriter(path_);
            Write(*writer_, 10);
            DemandNewest(path_, 10);
            DemandSound(path_);
        }
    }

    const std::string role_;
    const std::string path_;
    const std::shared_ptr<kvo::ProcessLock> lock_;
    std::unique_ptr<StreamFile> file_;
    std::unique_ptr<KvoMemoryAccessor> writer_;
};

}  // namespace

int main(int argc, char** argv) {
    return RunCrashPoints(argc, argv,
                          {{{"writer", BeWriter}, {"reader", BeReader}, {"creator", BeCreator}},
                           [](const std::string& role, const std::string& directory) {
                               return std::make_unique<StreamEncounter>(role, directory);
                           },
                           20});
}

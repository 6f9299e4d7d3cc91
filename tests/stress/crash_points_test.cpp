// Every named point of the stream file's protocol, hit once with SIGKILL and once with SIGSTOP:
// whoever dies or stands still there harms nobody else.
#include "kvo/crash_point.h"
#include "kvo/memory/inspection.h"
#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/stream_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using kvo::KvoMemoryAccessor;
using kvo::StreamFile;

constexpr int kPayload = 64;
constexpr std::uint64_t kRetained = 4;
constexpr const char* kStream = "crash/points";

// Of this process: where it is to stop, and how often it came by each point.
std::string wanted_point;
int wanted_hit = 0;
int wanted_signal = 0;
std::map<std::string, int> hits;

void Demand(bool holds, const std::string& otherwise) {
    if (!holds) {
        throw std::runtime_error(otherwise);
    }
}

std::vector<unsigned char> ContentOf(std::uint64_t number) {
    return std::vector<unsigned char>(kPayload, static_cast<unsigned char>(number));
}

std::unique_ptr<KvoMemoryAccessor> Open(const std::string& path) {
    return std::make_unique<KvoMemoryAccessor>(path, kStream, nullptr, 0, 1);
}

std::unique_ptr<KvoMemoryAccessor> OpenWriter(const std::string& path) {
    auto writer = Open(path);
    writer->SetSizeConstraints(kPayload, kvo::kMaxMetadataBytes);
    return writer;
}

// Continues the numbers of the segment, so that a sample's bytes tell its number.
void Write(KvoMemoryAccessor& writer, int samples) {
    for (int i = 0; i < samples; ++i) {
        const auto content = ContentOf(writer.writer_counters().written + 1);
        writer.WriteData(-1, 0, 0, content.data(), kPayload, nullptr, 0, 1);
    }
    Demand(writer.writer_counters().dropped == 0, "the writer found no slot");
}

std::unique_ptr<StreamFile> Create(const std::string& path, std::uint64_t epoch) {
    StreamFile::Creation creation;
    creation.path = path;
    creation.stream = kStream;
    kvo::SpareSlots spare;
    spare.budget_bytes = 0;  // one row may pin: a second reader copies
    creation.geometry = kvo::PlanGeometry(kPayload, kRetained, spare);
    creation.epoch = epoch;
    return StreamFile::Create(creation);
}

// Takes what is there and looks at every byte; the sequence numbers.
std::vector<std::uint64_t> TakeAll(KvoMemoryAccessor& reader) {
    std::vector<std::uint64_t> numbers;
    for (;;) {
        kvo::DataSample* sample = nullptr;
        reader.get_data_packet(nullptr, nullptr, nullptr, nullptr, nullptr, &sample);
        if (sample == nullptr) {
            return numbers;
        }
        numbers.push_back(sample->sequence_number());
        const auto content = ContentOf(sample->sequence_number());
        Demand(std::equal(content.begin(), content.end(), sample->payload()),
               "sample " + std::to_string(sample->sequence_number()) + " is not whole");
    }
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

void BeWriter(const std::string& path) {
    const auto writer = OpenWriter(path);
    if (writer->get_is_initialized()) {  // another may have come before a stopped one
        Write(*writer, 60);
    }
}

void BeReader(const std::string& path) {
    const auto pinning = Open(path);
    const auto copying = Open(path);
    for (KvoMemoryAccessor* reader : {pinning.get(), copying.get()}) {
        reader->StartReading();
        TakeAll(*reader);
    }
}

void BeCreator(const std::string& path) {
    Create(path, 2)->Remove();
}

struct Role {
    const char* name;
    void (*be)(const std::string& path);
};
constexpr Role kRoles[] = {{"writer", BeWriter}, {"reader", BeReader}, {"creator", BeCreator}};

// ---- The others

class Process {
public:
    explicit Process(const std::vector<std::string>& arguments) {
        std::vector<std::string> texts{"/proc/self/exe"};
        texts.insert(texts.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& text : texts) {
            argv.push_back(text.data());
        }
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        if (!ended_) {
            ::kill(pid_, SIGKILL);
            Await(0);
        }
    }
    /// Waits until it has died or, with WUNTRACED, stopped. @return its status.
    int Await(int options) {
        int status = 0;
        while (::waitpid(pid_, &status, options) < 0 && errno == EINTR) {
        }
        ended_ = !WIFSTOPPED(status);
        return status;
    }
    void Continue() const { ::kill(pid_, SIGCONT); }

private:
    pid_t pid_ = -1;
    bool ended_ = false;
};

/// One point and one signal: a stream of its own, a process that runs into it, and the others.
class Encounter {
public:
    Encounter(const Role& role, const std::string& point, int hit, int signal_number)
        : role_(role.name), signal_(signal_number) {
        Demand(::mkdtemp(directory_.data()) != nullptr, "no directory in /dev/shm");
        path_ = directory_ + "/stream";
        lock_ = kvo::ProcessLock::ForDirectory(directory_);
        lock_->Join();
        file_ = Create(path_, 1);
        if (role_ != "writer") {
            writer_ = OpenWriter(path_);
            Write(*writer_, 20);
        }
        process_ = std::make_unique<Process>(std::vector<std::string>{
            role.name, path_, point, std::to_string(hit), std::to_string(signal_number)});
        const int status = process_->Await(WUNTRACED);
        Demand(signal_ == SIGKILL ? WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL
                                  : WIFSTOPPED(status),
               "the process did not come by the point");
    }
    Encounter(const Encounter&) = delete;
    Encounter& operator=(const Encounter&) = delete;
    ~Encounter() {
        process_.reset();
        writer_.reset();
        file_.reset();
        std::filesystem::remove_all(directory_);
    }

    void Check() {
        if (role_ == "writer") {
            CheckSuccession();
        } else if (role_ == "reader") {
            CheckOthersGoOn();
        } else {
            CheckCreation();
        }
        if (signal_ == SIGSTOP) {
            process_->Continue();
            const int status = process_->Await(0);
            Demand(WIFEXITED(status) && WEXITSTATUS(status) == 0,
                   "the process that went on ended with status " + std::to_string(status));
            if (role_ != "creator") {  // which has removed it
                DemandSound(path_);
            }
        } else {
            Demand(file_->ReapDeadReaders(*lock_) >= 0 && file_->readers().empty(),
                   "rows are left");
        }
    }

private:
    void CheckSuccession() {
        DemandSound(path_);
        if (signal_ == SIGSTOP) {
            // It lives, so its segment is given up for a new one, which it can not touch.
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

    void CheckOthersGoOn() {
        Write(*writer_, 100);
        DemandNewest(path_, 120);
        DemandSound(path_);
    }

    void CheckCreation() {
        // Whatever there is, a new stream can be made; until then the old one goes on.
        Write(*writer_, 10);
        if (signal_ == SIGKILL) {
            file_->Retire();
            file_ = Create(path_, 3);
            writer_ = OpenWriter(path_);
            Write(*writer_, 10);
            DemandNewest(path_, 10);
            DemandSound(path_);
        }
    }

    const std::string role_;
    const int signal_;
    std::string directory_ = "/dev/shm/kvo-crash-XXXXXX";
    std::string path_;
    std::shared_ptr<kvo::ProcessLock> lock_;
    std::unique_ptr<StreamFile> file_;
    std::unique_ptr<KvoMemoryAccessor> writer_;
    std::unique_ptr<Process> process_;
};

// All points that the role comes by when nobody stops it, and how often.
std::map<std::string, int> PointsOf(const Role& role) {
    std::string directory = "/dev/shm/kvo-crash-XXXXXX";
    Demand(::mkdtemp(directory.data()) != nullptr, "no directory in /dev/shm");
    const std::string path = directory + "/stream";
    {
        const auto file = Create(path, 1);
        std::unique_ptr<KvoMemoryAccessor> writer;
        if (role.be != BeWriter) {
            writer = OpenWriter(path);
            Write(*writer, 20);
        }
        hits.clear();
        role.be(path);
    }
    std::filesystem::remove_all(directory);
    return std::exchange(hits, {});
}

int Drive() {
    int encounters = 0;
    int failures = 0;
    std::map<std::string, int> all;
    for (const Role& role : kRoles) {
        for (const auto& [point, count] : PointsOf(role)) {
            ++all[point];
            for (const int signal_number : {SIGKILL, SIGSTOP}) {
                ++encounters;
                try {
                    // In the middle of its life, where slots are used again.
                    Encounter(role, point, (count + 1) / 2, signal_number).Check();
                } catch (const std::exception& error) {
                    ++failures;
                    std::cerr << role.name << " with signal " << signal_number << " at \"" << point
                              << "\": " << error.what() << '\n';
                }
            }
        }
    }
    std::cout << all.size() << " crash points, " << encounters << " encounters, " << failures
              << " failures" << std::endl;
    return failures == 0 && all.size() > 20 ? 0 : 1;
}

}  // namespace

void kvo::HitCrashPoint(const char* name) {
    const int hit = ++hits[name];
    if (wanted_point == name && hit == wanted_hit) {
        ::raise(wanted_signal);
    }
}

// Without arguments all points; ROLE PATH POINT HIT SIGNAL: one process.
int main(int argc, char** argv) {
    if (argc != 6) {
        return Drive();
    }
    wanted_point = argv[3];
    wanted_hit = std::atoi(argv[4]);
    wanted_signal = std::atoi(argv[5]);
    try {
        for (const Role& role : kRoles) {
            if (role.name == std::string(argv[1])) {
                role.be(argv[2]);
            }
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << argv[1] << " that went on after \"" << wanted_point << "\": " << error.what()
                  << '\n';
        return 1;
    }
}

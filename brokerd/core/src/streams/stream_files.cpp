#include "streams/stream_files.h"

#include "kvo/os/file_access.h"
#include "streams/stream_name.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <limits>
#include <set>
#include <stdexcept>
#include <string_view>
#include <sys/statvfs.h>
#include <system_error>
#include <utility>

namespace kvo::brokerd {
namespace {

namespace fs = std::filesystem;

struct FileSystem {
    std::uint64_t total_bytes;
    std::uint64_t free_bytes;
};

FileSystem FileSystemOf(const std::string& directory) {
    struct statvfs status {};
    if (::statvfs(directory.c_str(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), "asking for room in " + directory);
    }
    return {status.f_blocks * status.f_frsize, status.f_bavail * status.f_frsize};
}

std::uint64_t WallClockUs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The digest or uuid that every file of ours begins with. A directory that is named by mistake may
// hold other files; those are never touched.
constexpr std::size_t kDigits = 32;

bool BeginsLikeOurs(std::string_view name) {
    return name.size() > kDigits && name.find_first_not_of("0123456789abcdef") == kDigits;
}

bool IsDataFile(std::string_view name) {
    return BeginsLikeOurs(name) && name[kDigits] == '-' && EndsWith(name, kStreamFileSuffix);
}

bool IsControlFile(std::string_view name) {
    return BeginsLikeOurs(name) && name.substr(kDigits) == ".pins";
}

bool IsHalfMade(std::string_view name) {
    return BeginsLikeOurs(name) && name.substr(kDigits) == ".new";
}

}  // namespace

StreamFiles::StreamFiles(std::string directory, std::uint64_t budget_bytes, const SpareSlots& spare,
                         ProcessLock& processes, const os::FileAccess& access)
    : directory_(std::move(directory)),
      budget_bytes_(0),
      spare_(spare),
      processes_(processes),
      access_(access) {
    SetBudget(budget_bytes);
}

void StreamFiles::SetBudget(std::uint64_t bytes) {
    budget_bytes_ = bytes != 0 ? bytes : FileSystemOf(directory_).total_bytes / 2;
}

std::string StreamFiles::PathOf(const StreamName& stream) const {
    return directory_ + "/" + FileNameOf(stream);
}

std::uint64_t StreamFiles::AvailableBytes() const {
    thread_.here();
    return std::min(budget_bytes_ - std::min(used_bytes_, budget_bytes_),
                    FileSystemOf(directory_).free_bytes);
}

Verdict StreamFiles::CheckRoom(const StreamName& stream, std::uint64_t bytes) const {
    const std::uint64_t available = AvailableBytes();
    if (bytes <= available) {
        return {};
    }
    return {kNotEnoughMemory,
            Titled(stream) + ": " + std::to_string(bytes) + " bytes of shared memory requested, " +
                std::to_string(available) + " left of " + std::to_string(budget_bytes_) +
                "; request fewer or smaller samples, or raise memory-budget"};
}

std::int32_t StreamFiles::LargestBuffer(std::int32_t sample_bytes) const {
    if (sample_bytes < 1) {
        return 0;
    }
    const std::uint64_t available = AvailableBytes();
    const auto fits = [&](std::int64_t samples) {
        try {
            return PlanGeometry(sample_bytes, samples, spare_).total_bytes() <= available;
        } catch (const std::invalid_argument&) {
            return false;
        }
    };
    // More samples never need less room, so halving finds the border.
    std::int64_t good = 0;
    std::int64_t bad = std::int64_t{std::numeric_limits<std::int32_t>::max()} / sample_bytes + 1;
    while (bad - good > 1) {
        const std::int64_t middle = good + (bad - good) / 2;
        (fits(middle) ? good : bad) = middle;
    }
    return static_cast<std::int32_t>(good * sample_bytes);
}

std::unique_ptr<StreamFile> StreamFiles::Create(const StreamName& stream,
                                                const StreamGeometry& geometry,
                                                const std::string& publisher_key, bool checksum,
                                                std::unique_ptr<StreamFile>& before) {
    thread_.here();
    StreamFile::Creation creation;
    creation.path = PathOf(stream);
    creation.stream = stream.text();
    creation.geometry = geometry;
    creation.epoch = std::max(WallClockUs(), last_epoch_ + 1);
    creation.key_digest = DigestKey(publisher_key);
    creation.checksum = checksum;
    creation.access = access_;
    auto file = StreamFile::Create(creation);
    last_epoch_ = creation.epoch;
    Take(*file);
    if (before != nullptr) {
        before->Retire();
        removed_.push_back(std::move(before));
        ForgetUnused();
    }
    return file;
}

void StreamFiles::Remove(std::unique_ptr<StreamFile> file) {
    thread_.here();
    file->Retire();
    file->Remove();
    removed_.push_back(std::move(file));
    ForgetUnused();
}

void StreamFiles::ForgetUnused() {
    thread_.here();
    std::erase_if(removed_, [this](const std::unique_ptr<StreamFile>& file) {
        if (InUse(*file)) {
            return false;
        }
        used_bytes_ -= file->geometry().total_bytes();
        return true;
    });
}

bool StreamFiles::WriterLives(const StreamFile& file) const {
    const ProcessTag writer = file.writer_state().writer;
    return writer.number != 0 &&
           processes_.Resolve(writer.number, static_cast<std::uint32_t>(writer.nonce));
}

std::vector<std::unique_ptr<StreamFile>> StreamFiles::Sweep(
    const std::function<void(const std::string&)>& log) {
    std::vector<std::unique_ptr<StreamFile>> living;
    std::set<std::string> controls;
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(directory_)) {
        files.push_back(entry.path());
    }
    for (const fs::path& path : files) {
        if (!IsDataFile(path.filename().native())) {
            continue;
        }
        try {
            auto file = StreamFile::Open(path.string());
            last_epoch_ = std::max(last_epoch_, file->epoch());
            const bool in_place = PathOf(StreamName(file->stream())) == path.string();
            if (in_place && !file->writer_state().retired && WriterLives(*file)) {
                controls.insert(file->control_path());
                Take(*file);
                living.push_back(std::move(file));
            } else {
                Take(*file);
                Remove(std::move(file));
            }
        } catch (const std::exception& error) {
            log("removing what is no stream file: " + std::string(error.what()));
            fs::remove(path);
        }
    }
    // Control files without a data file and what a creation left half made.
    for (const fs::path& path : files) {
        const std::string name = path.filename().string();
        if (IsHalfMade(name) || (IsControlFile(name) && controls.count(path.string()) == 0)) {
            fs::remove(path);
        }
    }
    return living;
}

}  // namespace kvo::brokerd

#include "kvo/memory/process_lock.h"

#include "kvo/os/file_access.h"
#include "kvo/os/file_descriptor.h"
#include "kvo/os/fork_guard.h"
#include "kvo/os/process_identity.h"
#include "kvo/os/random_bytes.h"
#include "kvo/os/regular_file.h"
#include "kvo/os/system_error.h"
#include "lifetime/process_record.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kvo {
namespace {

// While the directory's owner removes an unused file it holds every byte, for some microseconds.
constexpr int kJoinAttempts = 200;

// The lock file of one directory as this process holds it. POSIX locks go with any descriptor of
// the file that the process closes, so there is one, and it is closed only when the file has
// been unlinked. Threads: any.
class DirectoryLock {
public:
    explicit DirectoryLock(std::string path) : path_(std::move(path)) {}

    void Open() {
        const std::lock_guard lock(mutex_);
        OpenCurrentFile();
    }
    ProcessTag AddUser();
    void DropUser();
    bool Lives(const ProcessTag& tag) const;
    std::optional<ProcessTag> Resolve(std::uint16_t number, std::uint32_t nonce_low) const;
    std::vector<std::pair<os::ProcessIdentity, ProcessTag>> Joined() const;
    bool HasOthers(int own_users) const;
    void SetPermissions(const os::FileAccess& access) {
        const std::lock_guard lock(mutex_);
        os::SetPermissions(file_.get(), access.shared_mode(), access.group, path_);
    }
    bool Remove(int own_users);

    bool Abandoned() const {
        const std::lock_guard lock(mutex_);
        return users_ == 0 && !PathIsOurFile();
    }

private:
    void OpenCurrentFile();
    bool PathIsOurFile() const { return os::IsFileAt(path_, file_.get()); }
    std::uint16_t TakeAnyByte() const;
    bool SetLock(short type, off_t first, off_t count) const;
    bool HeldByOther(off_t first, off_t count) const;
    ProcessRecord ReadRecord(std::uint16_t number) const;
    void WriteRecord(std::uint16_t number, const ProcessRecord& record) const;

    const std::string path_;
    mutable std::mutex mutex_;  // all below
    os::FileDescriptor file_;
    int users_ = 0;
    ProcessTag own_;
};

void DirectoryLock::OpenCurrentFile() {
    if (PathIsOurFile()) {
        return;
    }
    os::FileDescriptor file(
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0660));
    if (file.get() < 0) {
        os::ThrowOpening(path_);
    }
    // All records have their room from the start: on a full file system no process could join.
    struct stat status {};
    if (::fstat(file.get(), &status) == 0 && status.st_size < kProcessLockBytes) {
        os::ReserveBytes(file.get(), kProcessLockBytes, path_);
    }
    file_ = std::move(file);
}

bool DirectoryLock::SetLock(short type, off_t first, off_t count) const {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = first;
    lock.l_len = count;
    return ::fcntl(file_.get(), F_SETLK, &lock) == 0;
}

bool DirectoryLock::HeldByOther(off_t first, off_t count) const {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = first;
    lock.l_len = count;
    // A process that cannot ask must not declare another one dead.
    return ::fcntl(file_.get(), F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

ProcessRecord DirectoryLock::ReadRecord(std::uint16_t number) const {
    ProcessRecord record{};
    const ssize_t got = ::pread(file_.get(), &record, sizeof record, RecordOffset(number));
    return got == static_cast<ssize_t>(sizeof record) ? record : ProcessRecord{};
}

void DirectoryLock::WriteRecord(std::uint16_t number, const ProcessRecord& record) const {
    const ssize_t put = ::pwrite(file_.get(), &record, sizeof record, RecordOffset(number));
    if (put != static_cast<ssize_t>(sizeof record)) {
        os::ThrowErrno(put < 0 ? errno : ENOSPC, "writing " + path_);
    }
}

std::uint16_t DirectoryLock::TakeAnyByte() const {
    // Processes begin at different places, so that one try is the rule.
    const auto start = static_cast<std::uint16_t>(::getpid() % kMaxProcesses);
    for (std::uint16_t i = 0; i < kMaxProcesses; ++i) {
        const auto number = static_cast<std::uint16_t>((start + i) % kMaxProcesses + 1);
        if (SetLock(F_WRLCK, number, 1)) {
            return number;
        }
    }
    return 0;
}

ProcessTag DirectoryLock::AddUser() {
    const std::lock_guard lock(mutex_);
    if (users_ > 0) {
        ++users_;
        return own_;
    }
    for (int attempt = 0; attempt < kJoinAttempts; ++attempt) {
        OpenCurrentFile();
        const std::uint16_t number = TakeAnyByte();
        if (number == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        if (!PathIsOurFile()) {  // removed between opening and locking
            SetLock(F_UNLCK, number, 1);
            continue;
        }
        ProcessRecord record{};
        os::FillRandom(&record.nonce, sizeof record.nonce);
        record.nonce = (record.nonce & ((1ULL << 48) - 1)) | 1;
        record.identity = os::OwnProcessIdentity();
        record.process_id = static_cast<std::uint32_t>(::getpid());
        try {
            WriteRecord(number, record);
        } catch (...) {
            SetLock(F_UNLCK, number, 1);
            throw;
        }
        own_ = {number, record.nonce};
        users_ = 1;
        return own_;
    }
    os::ThrowErrno(EUSERS, "no free process number in " + path_);
}

void DirectoryLock::DropUser() {
    const std::lock_guard lock(mutex_);
    if (users_ == 0 || --users_ > 0) {
        return;
    }
    const ProcessRecord none{};
    // A record that stays behind does no harm: the byte is free.
    static_cast<void>(::pwrite(file_.get(), &none, sizeof none, RecordOffset(own_.number)) > 0);
    SetLock(F_UNLCK, own_.number, 1);
    own_ = {};
}

bool DirectoryLock::Lives(const ProcessTag& tag) const {
    if (tag.number == 0 || tag.number > kMaxProcesses || tag.nonce == 0) {
        return false;
    }
    const std::lock_guard lock(mutex_);
    // The kernel shows a process its own locks as free.
    if (users_ > 0 && tag.number == own_.number) {
        return tag == own_;
    }
    return HeldByOther(tag.number, 1) && ReadRecord(tag.number).nonce == tag.nonce;
}

std::optional<ProcessTag> DirectoryLock::Resolve(std::uint16_t number,
                                                 std::uint32_t nonce_low) const {
    if (number == 0 || number > kMaxProcesses) {
        return std::nullopt;
    }
    const std::lock_guard lock(mutex_);
    const bool own = users_ > 0 && number == own_.number;
    const std::uint64_t nonce = own ? own_.nonce : ReadRecord(number).nonce;
    if (nonce == 0 || static_cast<std::uint32_t>(nonce) != nonce_low ||
        !(own || HeldByOther(number, 1))) {
        return std::nullopt;
    }
    return ProcessTag{number, nonce};
}

std::vector<std::pair<os::ProcessIdentity, ProcessTag>> DirectoryLock::Joined() const {
    const std::lock_guard lock(mutex_);
    std::vector<ProcessRecord> records(kMaxProcesses + 1);
    const ssize_t got = ::pread(file_.get(), records.data(), records.size() * sizeof(ProcessRecord),
                                kRecordsOffset);
    records.resize(got > 0 ? static_cast<std::size_t>(got) / sizeof(ProcessRecord) : 0);
    std::vector<std::pair<os::ProcessIdentity, ProcessTag>> joined;
    for (std::size_t number = 1; number < records.size(); ++number) {
        if (const ProcessRecord& record = records[number]; record.nonce != 0) {
            joined.push_back({record.identity, {static_cast<std::uint16_t>(number), record.nonce}});
        }
    }
    return joined;
}

bool DirectoryLock::HasOthers(int own_users) const {
    const std::lock_guard lock(mutex_);
    return users_ > own_users || HeldByOther(1, kMaxProcesses);
}

bool DirectoryLock::Remove(int own_users) {
    const std::lock_guard lock(mutex_);
    // With every byte held no process can join until the path is free; one that tries meanwhile
    // finds afterwards that the path no longer names the file he has locked.
    if (users_ > own_users || !PathIsOurFile() || !SetLock(F_WRLCK, 1, kMaxProcesses)) {
        return false;
    }
    const bool removed = ::unlink(path_.c_str()) == 0;
    if (!removed && own_users > 0) {
        SetLock(F_UNLCK, 1, own_.number - 1);
        SetLock(F_UNLCK, own_.number + 1, kMaxProcesses - own_.number);
        return false;
    }
    SetLock(F_UNLCK, 1, kMaxProcesses);
    if (removed) {
        users_ = 0;
        own_ = {};
    }
    return removed;
}

// The two that are one per process by nature are kept here: a directory's lock file is open once.
class Directories {
public:
    static Directories& OfThisProcess() {
        static auto& directories = *new Directories;  // outlives every user
        return directories;
    }
    std::shared_ptr<DirectoryLock> Get(const std::string& directory) {
        const std::string path =
            (std::filesystem::canonical(directory) / kProcessLockName).string();
        const std::lock_guard lock(mutex_);
        std::erase_if(locks_, [&](const auto& entry) {
            return entry.second.use_count() == 1 && entry.second->Abandoned();
        });
        auto& held = locks_[path];
        if (!held) {
            held = std::make_shared<DirectoryLock>(path);
        }
        held->Open();
        return held;
    }

private:
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<DirectoryLock>> locks_;
};

}  // namespace

class ProcessLock::Impl {
public:
    explicit Impl(std::shared_ptr<DirectoryLock> directory) : directory_(std::move(directory)) {}

    const std::shared_ptr<DirectoryLock> directory_;
    std::mutex mutex_;  // joined_
    ProcessTag joined_;
    int users() {
        const std::lock_guard lock(mutex_);
        return joined_.number != 0 ? 1 : 0;
    }
};

std::shared_ptr<ProcessLock> ProcessLock::ForDirectory(const std::string& directory) {
    os::WatchForks();
    if (os::InForkedChild()) {
        os::ThrowErrno(EPERM, "process lock of " + directory + " in a forked child");
    }
    return std::shared_ptr<ProcessLock>(
        new ProcessLock(std::make_unique<Impl>(Directories::OfThisProcess().Get(directory))));
}

ProcessLock::ProcessLock(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

ProcessLock::~ProcessLock() {
    if (!os::InForkedChild() && impl_->joined_.number != 0) {
        impl_->directory_->DropUser();
    }
}

ProcessTag ProcessLock::Join() {
    if (os::InForkedChild()) {
        os::ThrowErrno(EPERM, "joining in a forked child");
    }
    const std::lock_guard lock(impl_->mutex_);
    if (impl_->joined_.number == 0) {
        impl_->joined_ = impl_->directory_->AddUser();
    }
    return impl_->joined_;
}

bool ProcessLock::Lives(const ProcessTag& tag) const {
    return !os::InForkedChild() && impl_->directory_->Lives(tag);
}

std::optional<ProcessTag> ProcessLock::Resolve(std::uint16_t number,
                                               std::uint32_t nonce_low) const {
    return os::InForkedChild() ? std::nullopt : impl_->directory_->Resolve(number, nonce_low);
}

std::vector<std::pair<os::ProcessIdentity, ProcessTag>> ProcessLock::Joined() const {
    return os::InForkedChild() ? std::vector<std::pair<os::ProcessIdentity, ProcessTag>>{}
                               : impl_->directory_->Joined();
}

bool ProcessLock::HasOthers() const {
    return !os::InForkedChild() && impl_->directory_->HasOthers(impl_->users());
}

void ProcessLock::SetPermissions(const os::FileAccess& access) {
    if (!os::InForkedChild()) {
        impl_->directory_->SetPermissions(access);
    }
}

bool ProcessLock::RemoveIfUnused() {
    if (os::InForkedChild()) {
        return false;
    }
    const bool removed = impl_->directory_->Remove(impl_->users());
    if (removed) {
        const std::lock_guard lock(impl_->mutex_);
        impl_->joined_ = {};
    }
    return removed;
}

}  // namespace kvo

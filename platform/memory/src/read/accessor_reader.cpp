#include "read/accessor_reader.h"

#include "kvo/KvoLogger.h"
#include "kvo/os/regular_file.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

namespace kvo {

AccessorReader::AccessorReader(Settings settings)
    : settings_(std::move(settings)),
      signal_(IsolatingCombiner{settings_.logger}),
      store_(settings_.accessor_argument) {}

void AccessorReader::Log(int level, const std::string& message) {
    {
        const std::lock_guard lock(mutex_);
        if (ended_) {
            return;
        }
    }
    KvoLogger::WriteToLogger(settings_.logger, level, "KvoMemoryAccessor: " + message);
}

AccessorReader::OpenOutcome AccessorReader::OpenPath(Wanted wanted, std::string& fault) {
    const std::lock_guard one_at_a_time(open_mutex_);
    std::shared_ptr<Segment> segment;
    try {
        segment = Segment::Open(settings_.path, Segment::Access::kRead);
        if (segment->stream() != settings_.stream) {
            throw std::runtime_error(settings_.path + " is of stream \"" + segment->stream() +
                                     "\", not \"" + settings_.stream + "\"");
        }
    } catch (const std::exception& error) {
        fault = error.what();
        return OpenOutcome::kFailed;
    }
    auto opened = std::make_unique<SampleReader>(std::move(segment));
    const std::lock_guard lock(mutex_);
    const Segment& there = opened->segment();
    if ((current_ != nullptr && current_->segment().uuid() == there.uuid()) ||
        (wanted == Wanted::kNewerEpoch && there.epoch() <= last_epoch_)) {
        return OpenOutcome::kUnchanged;
    }
    LeaveSegment();
    last_epoch_ = there.epoch();
    current_ = std::move(opened);
    return OpenOutcome::kOpened;
}

bool AccessorReader::Open() {
    std::string fault;
    if (OpenPath(Wanted::kAny, fault) == OpenOutcome::kFailed) {
        Log(4, "shared memory not opened: " + fault);
        return false;
    }
    return true;
}

void AccessorReader::Close() {
    const std::lock_guard lock(mutex_);
    LeaveSegment();
}

void AccessorReader::LeaveSegment() {
    if (HasPlace()) {
        const std::uint64_t newest = current_->Newest();
        place_.left_unread = current_->Unread(place_.next, newest);
        place_.left_lost = std::max(place_.next, current_->OldestRetained(newest)) - place_.next;
    }
    current_.reset();
}

void AccessorReader::BeginAnewInNewEpoch() {
    if (current_ != nullptr && place_.set && place_.epoch != current_epoch()) {
        counters_.superseded += place_.left_unread;
        counters_.lost += place_.left_lost;
        place_ = {};
    }
}

void AccessorReader::Reset() {
    const std::lock_guard lock(mutex_);
    BeginAnewInNewEpoch();
}

void AccessorReader::StartReading() {
    std::string fault;
    {
        const std::lock_guard lock(mutex_);
        started_ = true;
        reading_ = true;
        if (current_ == nullptr) {
            return;
        }
        BeginAnewInNewEpoch();
        if (!place_.set) {
            place_.set = true;
            place_.epoch = current_epoch();
            place_.next = current_->FirstYoung(settings_.max_age_ns);
            place_.signalled = place_.next - 1;
        }
        fault = current_->ClaimEntry(os::DirectoryOf(settings_.path));
        current_->PublishStatistics(counters_, place_.next);
    }
    if (!fault.empty()) {
        Log(3, "no free entry in the reader table of " + settings_.path +
                   ", samples are copied: " + fault);
    }
}

void AccessorReader::StopReading() {
    const std::lock_guard lock(mutex_);
    reading_ = false;
}

void AccessorReader::set_publisher_gone(bool gone) {
    const std::lock_guard lock(mutex_);
    publisher_gone_ = gone;
}

void AccessorReader::Reattach() {
    std::string fault;
    switch (OpenPath(Wanted::kAny, fault)) {
        case OpenOutcome::kUnchanged:
            return;
        case OpenOutcome::kFailed:
            Log(3, "reattaching keeps what was open: " + fault);
            return;
        case OpenOutcome::kOpened:
            break;
    }
    bool started = false;
    {
        const std::lock_guard lock(mutex_);
        publisher_gone_ = false;
        BeginAnewInNewEpoch();
        started = started_;
    }
    if (started) {
        StartReading();
    }
}

std::uint64_t AccessorReader::Unread() const {
    return HasPlace() ? current_->Unread(place_.next, current_->Newest()) : 0;
}

// Claims the next unread sample up to `last` (0: the newest now) for one signal.
[[gnu::hot]] bool AccessorReader::ClaimSignal(std::uint64_t& last) {
    const std::lock_guard lock(mutex_);
    if (ended_ || !reading_ || !HasPlace()) {
        return false;
    }
    const std::uint64_t newest = current_->Newest();
    last = last == 0 ? newest : last;
    const std::uint64_t next =
        std::max({place_.signalled + 1, place_.next, current_->OldestRetained(newest)});
    if (next > std::min(last, newest) || signal_.empty()) {  // empty() checks every slot
        return false;
    }
    place_.signalled = next;
    return true;
}

[[gnu::hot]] void AccessorReader::SignalUnread() {
    // Samples that are written meanwhile have a notification of their own.
    std::uint64_t last = 0;
    while (ClaimSignal(last)) {
        signal_();
    }
}

bool AccessorReader::OpenSuccessor() {
    {
        const std::lock_guard lock(mutex_);
        if (ended_ || (current_ != nullptr && !current_->segment().retired() && !publisher_gone_)) {
            return false;
        }
    }
    std::string fault;
    switch (OpenPath(Wanted::kNewerEpoch, fault)) {
        case OpenOutcome::kUnchanged:
            return false;
        case OpenOutcome::kFailed:
            Log(1, "no newer segment yet: " + fault);
            return false;
        case OpenOutcome::kOpened:
            break;
    }
    set_publisher_gone(false);
    StartReading();
    return true;
}

void AccessorReader::NewData() {
    // First what the old segment still holds, then what a newer one brings.
    SignalUnread();
    if (OpenSuccessor()) {
        SignalUnread();
    }
}

[[gnu::hot]] AccessorReader::Packet AccessorReader::TakeNext(bool take, bool count) {
    Packet packet;
    bool damaged = false;
    {
        const std::lock_guard lock(mutex_);
        if (!take || !HasPlace()) {
            packet.unread = Unread();
            return packet;
        }
        if (count) {
            current_->ProbeUnread(place_.next);
        }
        if (current_->TakeNext(settings_.max_age_ns, place_.next, counters_, store_.spare(),
                               damaged_)) {
            packet.sample = store_.HandOut();
        }
        packet.unread = current_->Unread(place_.next, current_->known_newest());
        current_->PublishStatistics(counters_, place_.next);
        damaged = !damaged_.empty();
    }
    if (damaged) {
        LogDamaged();
    }
    return packet;
}

void AccessorReader::LogDamaged() {
    std::vector<std::uint64_t> damaged;
    {
        const std::lock_guard lock(mutex_);
        damaged = std::exchange(damaged_, {});
    }
    for (const std::uint64_t sequence_number : damaged) {
        Log(4, "sample " + std::to_string(sequence_number) + " of stream \"" + settings_.stream +
                   "\" skipped: its checksum does not match");
    }
}

ReaderCounters AccessorReader::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

void AccessorReader::End() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
}

}  // namespace kvo

#include "streams/sweep.h"

#include <algorithm>

namespace kvo::brokerd {
namespace {

// A bound for the time of one call: each stream costs a look at every entry of its readers.
constexpr std::size_t kStreamsPerCall = 64;

}  // namespace

void Sweep::Run() {
    for (auto& [name, stream] : table_.streams()) {
        RunOn(name, stream);
    }
    table_.EraseUnused();
    subscribers_.ForgetDeparted();
    table_.files().ForgetUnused();
}

void Sweep::RunOn(const StreamName& name, Stream& stream) {
    if (stream.publisher) {
        publishers_.Supervise(name, stream);
    } else if (stream.file != nullptr && !stream.import && !stream.removal_due &&
               !table_.files().WriterLives(*stream.file)) {
        // Left by an earlier broker, and its writer never came back.
        stream.file->Retire();
        table_.RemoveFile(name, stream);
    }
    subscribers_.Supervise(name, stream);
    if (stream.removal_due && table_.Now() >= *stream.removal_due) {
        table_.RemoveFile(name, stream);
    }
}

void Sweep::ReclaimReaders() {
    StreamTable::Map& streams = table_.streams();
    auto entry = streams.upper_bound(last_reclaimed_);
    for (std::size_t i = 0; i < std::min(kStreamsPerCall, streams.size()); ++i) {
        if (entry == streams.end()) {
            entry = streams.begin();
        }
        if (entry->second.file != nullptr) {
            table_.files().ReapDeadReaders(*entry->second.file);
        }
        last_reclaimed_ = entry->first;
        ++entry;
    }
}

}  // namespace kvo::brokerd

#include "reader_pace.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kvo::tools {
namespace {

// A reader wakes nobody when it goes on, so its place is looked at again and again: often enough
// that the buffer does not run empty meanwhile.
constexpr std::chrono::milliseconds kLookAgain{1};

template <class Condition>
bool Await(Condition condition, StopSignal& stop) {
    while (!condition()) {
        stop.WaitUntil(std::chrono::steady_clock::now() + kLookAgain);
        if (stop.requested()) {
            return false;
        }
    }
    return true;
}

}  // namespace

ReaderPace::ReaderPace(std::string stream_file_path)
    : path_(std::move(stream_file_path)), file_(StreamFile::Open(path_)) {}

bool ReaderPace::AwaitReaders(std::size_t count, StopSignal& stop) {
    return Await([&] { return Current().readers().size() >= count; }, stop);
}

bool ReaderPace::AwaitLag(std::uint64_t most_unread, StopSignal& stop) {
    return Await([&] { return LargestLag() <= most_unread; }, stop);
}

StreamFile& ReaderPace::Current() {
    if (file_->writer_state().retired) {
        file_ = StreamFile::Open(path_);
    }
    return *file_;
}

std::uint64_t ReaderPace::LargestLag() {
    StreamFile& file = Current();
    const std::uint64_t newest = file.writer_state().newest_sequence;
    std::uint64_t lag = 0;
    for (const ReaderState& reader : file.readers()) {
        // A reader that has not begun yet has everything before it.
        const std::uint64_t next = std::max<std::uint64_t>(reader.next_sequence, 1);
        if (next <= newest) {
            lag = std::max(lag, newest + 1 - next);
        }
    }
    return lag;
}

}  // namespace kvo::tools

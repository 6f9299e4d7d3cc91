#include "layout/copy_out.h"

#include "kvo/os/crash_point.h"

#include <cstring>

namespace kvo {
namespace {

// ThreadSanitizer knows neither fences nor that a torn copy is thrown away. In its build the
// bytes are copied unseen, and the order is put on the accesses of the word: an exchange where
// the writer has a fence, an acquire load where the reader has one (its mapping is read-only).
// The build is for x86, where loads keep their order among each other.

// Word by word and relaxed, because the writer may be at the bytes. `from` is aligned to 64.
__attribute__((noinline, no_sanitize("thread"))) void CopyWhileWritten(const unsigned char* from,
                                                                       unsigned char* to,
                                                                       std::size_t bytes) {
    std::size_t at = 0;
    for (; at + sizeof(std::uint64_t) <= bytes; at += sizeof(std::uint64_t)) {
        const std::uint64_t word =
            __atomic_load_n(reinterpret_cast<const std::uint64_t*>(from + at), __ATOMIC_RELAXED);
        std::memcpy(to + at, &word, sizeof word);
    }
    for (; at < bytes; ++at) {
        to[at] = __atomic_load_n(from + at, __ATOMIC_RELAXED);
    }
}

bool Holds(std::uint64_t word, std::uint64_t version) {
    return word == layout::PackWord(version, layout::SlotState::kValid) ||
           word == layout::PackWord(version, layout::SlotState::kClosed);
}

}  // namespace

void BeginOverwrite(std::atomic<std::uint64_t>& word, std::uint64_t version) {
    const std::uint64_t writing = layout::PackWord(version, layout::SlotState::kWriting);
    // [overwrite] Release: a reader that copied a byte written after this sees this word, or a
    // later one, behind its acquire fence. Killed here, the slot still says "writing": no reader
    // takes it and the next writer uses it again.
#if !defined(__SANITIZE_THREAD__)
    word.store(writing, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
#else
    word.exchange(writing, std::memory_order_acq_rel);
#endif
}

bool CopyOut(const Segment& segment, std::uint32_t slot, std::uint64_t version,
             SlotContent& content, std::vector<unsigned char>& bytes) {
    const auto& word = segment.slot(slot).word;
    // [slot-ready] Acquire: the content belongs to this version or to a later one.
    if (!Holds(word.load(std::memory_order_acquire), version)) {
        return false;
    }
    LoadContent(segment, slot, content);
    bytes.resize(content.total_bytes());
    CopyWhileWritten(segment.payload(slot), bytes.data(), bytes.size());
    KVO_CRASH_POINT("copy made");
#if !defined(__SANITIZE_THREAD__)
    // [overwrite] Acquire: had a byte above been of a later version, the load below would show it.
    std::atomic_thread_fence(std::memory_order_acquire);
    return Holds(word.load(std::memory_order_relaxed), version);
#else
    return Holds(word.load(std::memory_order_acquire), version);  // [overwrite]
#endif
}

}  // namespace kvo

#pragma once

#include "layout/segment.h"
#include "layout/slot_content.h"

#include <atomic>
#include <cstdint>
#include <vector>

// Reading a slot that nothing keeps from being overwritten, and the writer's half of it. The only
// place with fences between processes.
namespace kvo {

/// Writer: announces that a slot's content is about to change; no later store of this thread
/// becomes visible before the announcement.
void BeginOverwrite(std::atomic<std::uint64_t>& word, std::uint64_t version);

/// Reader: copies header, payload and metadata of one version out of a slot.
/// @return false: the slot does not hold that version (any more); the out-values are garbage.
// Out of line, as its code would lie between that of the reads by pin.
[[nodiscard, gnu::noinline]] bool CopyOut(const Segment& segment, std::uint32_t slot,
                                          std::uint64_t version, SlotContent& content,
                                          std::vector<unsigned char>& bytes);

}  // namespace kvo

#pragma once

#include "kvo/memory/stream_file.h"
#include "layout/segment.h"

#include <vector>

namespace kvo {

/// What the shared words say at this moment, for people and for questions that are asked again.
WriterState WriterStateOf(const Segment& segment);
std::vector<ReaderState> ReaderStatesOf(const Segment& segment);

}  // namespace kvo

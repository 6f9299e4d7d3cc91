#pragma once

#include "kvo/brokerd/federation_engine.h"

#include <cstddef>

namespace kvo::brokerd::dds {

/// Finds the parts of a kvo::remote::Sample where it lies serialised, with its four bytes of
/// header and in the byte order of this host. Its fields are ordered so that both versions of the
/// encoding put them at the same places. @return false: it is none.
bool ParseSample(const unsigned char* bytes, std::size_t size, SampleView& sample);

}  // namespace kvo::brokerd::dds

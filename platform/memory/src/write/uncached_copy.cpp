#include "write/uncached_copy.h"

#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace kvo {

#ifdef __SSE2__

namespace {

constexpr std::size_t kLine = 64;
// Two stretches at the same time: memory answers two streams sooner than one.
constexpr std::size_t kStretch = std::size_t{64} << 10;

void StreamLine(unsigned char* to, const unsigned char* from) {
    const auto* source = reinterpret_cast<const __m128i*>(from);
    auto* target = reinterpret_cast<__m128i*>(to);
    const __m128i first = _mm_loadu_si128(source);
    const __m128i second = _mm_loadu_si128(source + 1);
    const __m128i third = _mm_loadu_si128(source + 2);
    const __m128i fourth = _mm_loadu_si128(source + 3);
    _mm_stream_si128(target, first);
    _mm_stream_si128(target + 1, second);
    _mm_stream_si128(target + 2, third);
    _mm_stream_si128(target + 3, fourth);
}

}  // namespace

void CopyUncached(unsigned char* to, const unsigned char* from, std::size_t bytes) {
    // [overwrite] Streamed stores pass those before them, also over a fence with release: without
    // this a reader that copies out could meet new bytes under the old word.
    _mm_sfence();
    for (; bytes >= 2 * kStretch; bytes -= 2 * kStretch, to += 2 * kStretch, from += 2 * kStretch) {
        for (std::size_t at = 0; at < kStretch; at += kLine) {
            StreamLine(to + at, from + at);
            StreamLine(to + kStretch + at, from + kStretch + at);
        }
    }
    std::memcpy(to, from, bytes);
    // [slot-ready] Nor does a store with release wait for them.
    _mm_sfence();
}

#else

void CopyUncached(unsigned char* to, const unsigned char* from, std::size_t bytes) {
    std::memcpy(to, from, bytes);
}

#endif

}  // namespace kvo

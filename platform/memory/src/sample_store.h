#pragma once

#include "kvo/memory/data_sample.h"
#include "sample_reader.h"

#include <cstddef>
#include <deque>
#include <utility>
#include <vector>

namespace kvo {

/// The samples that an application may still look at: each with its pin, and through it row and
/// mapping, or with its copy. Threads: one at a time; the samples themselves any.
class SampleStore {
public:
    /// @param accessor_argument how many samples stay valid; below 1: 1.
    explicit SampleStore(int accessor_argument);

    /// Hands a sample out and ends the oldest one if there are too many now.
    DataSample* Add(TakenSample taken);

    /// Memory of a copy that is not looked at any more, to be used again.
    std::vector<unsigned char> TakeSpare() { return std::exchange(spare_, {}); }
    void GiveSpare(std::vector<unsigned char> spare);

private:
    struct HandedOut {
        TakenSample taken;
        DataSample sample;
    };
    const std::size_t kept_;
    std::deque<HandedOut> samples_;  // keeps addresses
    std::vector<unsigned char> spare_;
};

}  // namespace kvo

#pragma once

#include "kvo/memory/data_sample.h"
#include "read/sample_reader.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace kvo {

/// The samples that an application may still use: each with its pin, and through it reader entry
/// and mapping, or with its copy. Threads: one at a time; the samples themselves any.
class SampleStore {
public:
    /// @param accessor_argument how many samples stay valid; below 1: 1.
    explicit SampleStore(int accessor_argument);

    /// The place for the next sample; no application knows it.
    TakenSample& spare() { return places_[spare_]->taken; }

    /// Hands out what was taken to spare() and ends the oldest sample if there are too many now.
    DataSample* HandOut();

private:
    [[gnu::cold]] void AddPlace();

    struct Place {
        TakenSample taken;
        DataSample sample;
    };
    const std::size_t kept_;
    // A circle, oldest sample behind the spare place; it grows until all `kept_` have been used.
    std::vector<std::unique_ptr<Place>> places_;
    std::size_t spare_ = 0;
};

}  // namespace kvo

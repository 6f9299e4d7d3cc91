#pragma once

#include "kvo/memory_export.h"
#include "kvo/os/light_mutex.h"

#include <boost/signals2/signal.hpp>

#include <exception>
#include <functional>

namespace kvo {

class KvoLogger;

/// Runs every connected slot, whatever one of them throws; exceptions are logged.
struct KVO_MEMORY_EXPORT IsolatingCombiner {
    using result_type = void;
    KvoLogger* logger = nullptr;
    template <class Iterator>
    void operator()(Iterator first, Iterator last) const {
        for (; first != last; ++first) {
            try {
                *first;
            } catch (const std::exception& error) {
                Report(error.what());
            } catch (...) {
                Report("not a std::exception");
            }
        }
    }
    void Report(const char* what) const;
};

/// Like any signal of its kind, but for the mutex: it is raised for every sample.
using DataAvailable =
    boost::signals2::signal<void(), IsolatingCombiner, int, std::less<int>, boost::function<void()>,
                            boost::function<void(const boost::signals2::connection&)>,
                            os::LightMutex>;

}  // namespace kvo

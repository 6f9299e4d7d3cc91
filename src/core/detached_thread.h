#pragma once

#include <functional>

namespace kvo {

/// Runs the function on a thread of its own that nobody joins; what it touches it must own a
/// share of. The thread takes no signals: they belong to the application's threads.
/// Throws std::system_error when no thread can be had.
void StartDetached(std::function<void()> function);

}  // namespace kvo

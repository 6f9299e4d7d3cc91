#pragma once

#include <functional>

namespace kvo {

/// Runs the function on a detached thread; the function must share ownership of all it uses. The
/// thread blocks all signals, which belong to the application's threads.
/// Throws std::system_error when no thread can be created.
void StartDetached(std::function<void()> function);

}  // namespace kvo

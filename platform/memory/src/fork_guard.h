#pragma once

// A forked child inherits our objects but neither the mappings nor the process's lock byte. From
// the first WatchForks() on, a child knows what it is: operations do nothing, destructors free
// memory only.
namespace kvo {

void WatchForks();
bool InForkedChild();

}  // namespace kvo

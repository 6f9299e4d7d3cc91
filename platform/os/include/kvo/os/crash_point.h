#pragma once

// The places where a test lets its process die or stop, each between two steps that others can
// see. A build for such a test defines KVO_CRASH_POINTS and HitCrashPoint; in any other these are
// nothing.
#if defined(KVO_CRASH_POINTS)
namespace kvo {
void HitCrashPoint(const char* name);
}
#define KVO_CRASH_POINT(name) ::kvo::HitCrashPoint(name)
#else
#define KVO_CRASH_POINT(name) static_cast<void>(0)
#endif

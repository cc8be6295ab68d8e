#pragma once

#include <atomic>

namespace tarvo::platform {

/// What a test does at the places that `faultPoint` names: end the process, or wait a little. None unless set.
using FaultHook = void (*)(const char* place);
inline std::atomic<FaultHook> faultHook{nullptr};

/// A place where a fault is worth trying: between two steps that belong together, or before a lock or a hand-over.
/// Nothing at all unless the build has the tests (TARVO_FAULT_POINTS). Threads: any.
inline void faultPoint([[maybe_unused]] const char* place) {
#ifdef TARVO_FAULT_POINTS
  if (const FaultHook hook = faultHook.load(std::memory_order_acquire)) hook(place);
#endif
}

}  // namespace tarvo::platform

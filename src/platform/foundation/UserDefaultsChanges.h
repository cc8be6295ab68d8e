#pragma once

#include <cstdint>
#include <functional>

namespace tarvo::platform {

/// At least 1, and more after each change of the user defaults: what was read behind the same number is still so.
/// Threads: any.
std::uint64_t userDefaultsChanges();

/// Runs the block once everything is in the file: at once if it is, else on the thread whose later write succeeds,
/// which may stand inside a block of the store. It must not wait for other work nor call the host.
void whenUserDefaultsAreWritten(std::function<void()> block);

}  // namespace tarvo::platform

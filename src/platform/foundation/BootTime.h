#pragma once

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// Time since the machine started, also while it was suspended: a span that is measured over a rest is a whole one.
/// Threads: any.
Seconds sinceBoot();

}  // namespace tarvo::platform

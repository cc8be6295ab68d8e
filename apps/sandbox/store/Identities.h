#pragma once

#include "sandbox/store/Store.h"

namespace tarvo::sandbox {

/// A random UUID of version 4, 128 random bits as secret, and the time of now such as 2024-06-15T10:11:12.034+0000.
Identity newIdentity();

/// How many of the newest events are kept, in steps of so many. A page that was away for longer begins anew.
constexpr std::int64_t kKeptEvents = 20000, kForgottenAtOnce = 500;

/// What rows of this kind bear.
std::string_view name(derive::Kind kind);

}  // namespace tarvo::sandbox

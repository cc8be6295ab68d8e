#pragma once

#include <optional>

#include "sandbox/Service.h"

namespace tarvo::sandbox {

/// What is answered in place of handling the request; nothing when it is to be handled.
std::optional<Reply> replyInstead(const Rule& fault);

/// What the fault makes of the answer to a request that was handled.
void spoil(Reply& reply, const Rule& fault);

}  // namespace tarvo::sandbox

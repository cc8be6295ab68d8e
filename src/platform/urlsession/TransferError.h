#pragma once

#include <curl/curl.h>

#include <string>
#include <string_view>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// The error of a transfer that failed at `url`, with the text that belongs to its code (see urlError).
Error transferError(int code, const std::string& url, std::string_view reason);

/// The code that stands for what curl met; `systemError` is the errno beneath it, or 0.
int urlErrorOf(CURLcode result, long systemError);
/// The code of a file that cannot be opened for its `systemError`.
int urlErrorOfFile(int systemError);

}  // namespace tarvo::platform

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/urlsession/BackgroundSession.h"

namespace tarvo::platform {

/// How an upload ended: a reply, an error, or both.
struct TransferOutcome {
  std::optional<int> statusCode;
  std::optional<std::string> data;
  std::optional<Error> error;
};

/// What a journal holds of one upload; without an outcome it is unfinished. The request's own body is not kept.
struct TransferRecord {
  URLSessionUploadTask task;
  std::optional<TransferOutcome> outcome;
};

/// One line of JSON, without its end. Texts that are not UTF-8 survive.
std::string encode(const TransferRecord& record);
/// The record of such a line; absent when anything in it is missing or of a wrong type.
std::optional<TransferRecord> decode(std::string_view line);

}  // namespace tarvo::platform

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

/// What a line of a journal says of one task: that it was resumed (the task, perhaps with its outcome), how it has
/// ended (the outcome alone), or that all is over (neither).
struct TransferNote {
  std::int64_t taskIdentifier = 0;
  std::optional<URLSessionUploadTask> task;
  std::optional<TransferOutcome> outcome;
};

// One line of JSON each, without its end. Texts that are not UTF-8 survive.

std::string encodeResumed(const URLSessionUploadTask& task);
std::string encodeEnded(std::int64_t taskIdentifier, const TransferOutcome& outcome);
std::string encodeOver(std::int64_t taskIdentifier);
/// What such a line says; absent when anything in it is missing or of a wrong type.
std::optional<TransferNote> decode(std::string_view line);

}  // namespace tarvo::platform

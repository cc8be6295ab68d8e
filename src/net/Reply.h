#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"
#include "platform/urlsession/URLRequest.h"

namespace tarvo {

/// What became of a request. A status and an error can stand side by side; an empty body is no data.
struct Reply {
  std::optional<std::string> data;
  std::optional<platform::HTTPURLResponse> response;
  std::optional<platform::Error> error;

  /// A status other than 200; no status at all is none.
  bool refused() const { return response && response->statusCode != 200; }
  bool ok() const { return response && response->statusCode == 200; }
};

/// `Optional("Could not connect to the server.")`
std::string printedDescription(const platform::Error& error);

// Values whose type the backend's contract fixes: another type, null included, stops the process. A Boolean is never
// a number.
bool requireBool(const platform::Value& value, std::string_view key);
std::int64_t requireInteger(const platform::Value& value, std::string_view key);
double requireNumber(const platform::Value& value, std::string_view key);
std::string requireText(const platform::Value& value, std::string_view key);
// These take the objects out of the value: an answer can be large, and is not needed twice.
platform::Dictionary requireObject(platform::Value&& value, std::string_view key);
std::vector<platform::Dictionary> requireObjects(platform::Value&& value, std::string_view key);

/// Whether the answer's "success" is there and true; one of another type stops the process.
bool isSuccess(const platform::Dictionary& answer);

/// The object that is the first element of "results"; a null pointer when the answer has another shape.
const platform::Dictionary* firstResult(const platform::Dictionary& answer);

}  // namespace tarvo

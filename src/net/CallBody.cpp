#include "net/CallBody.h"

#include <utility>

#include "log/Log.h"
#include "platform/foundation/Json.h"

namespace tarvo {

std::optional<std::string> callBody(const BodyTexts& texts, platform::Dictionary values) {
  const platform::Value body(std::move(values));
  if (!platform::isValidJsonObject(body)) {
    Log::error(texts.problem, mainThread());
    return std::nullopt;
  }
  auto json = platform::serializeJson(body);
  if (!json) {
    Log::error(texts.unresolved, platform::errorAndUserInfo(json.error()));
    return std::nullopt;
  }
  return std::move(*json);
}

}  // namespace tarvo

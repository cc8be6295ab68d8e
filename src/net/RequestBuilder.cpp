#include "net/RequestBuilder.h"

#include <utility>

#include "platform/foundation/Base64.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

constexpr int kBackgroundServiceType = 3;

}  // namespace

platform::URLRequest buildRequest(std::string_view versionedBase, std::string_view clientID, std::string_view method,
                                  std::string_view path, const Credentials& credentials,
                                  std::optional<std::string> body) {
  platform::URLRequest request;
  request.url = platform::concat(versionedBase, clientID, "/", path);
  if (!platform::isValidHttpUrl(request.url)) platform::fatalError("no valid request URL: " + request.url);
  request.httpMethod = method;
  request.addValue("Content-Type", "application/json");
  request.addValue("Accept", "application/json");
  request.networkServiceType = kBackgroundServiceType;
  request.addValue("Authorization",
                   "Basic " + platform::base64Encode(platform::concat(credentials.name, ":", credentials.secret)));
  request.httpBody = std::move(body);
  return request;
}

}  // namespace tarvo

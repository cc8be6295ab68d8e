#include "net/RequestBuilder.h"

#include <utility>

#include "net/Endpoints.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

constexpr int kBackgroundServiceType = 3;

platform::URLRequest authorizedRequest(std::string url, std::string_view method, const Credentials& credentials) {
  platform::URLRequest request;
  request.url = std::move(url);
  if (!platform::isValidHttpUrl(request.url)) platform::fatalError("no valid request URL: " + request.url);
  request.httpMethod = method;
  request.addValue("Authorization",
                   "Basic " + platform::base64Encode(platform::concat(credentials.name, ":", credentials.secret)));
  return request;
}

}  // namespace

platform::URLRequest buildRequest(std::string_view versionedBase, std::string_view clientID, std::string_view method,
                                  std::string_view path, const Credentials& credentials,
                                  std::optional<std::string> body) {
  auto request = authorizedRequest(platform::concat(versionedBase, clientID, "/", path), method, credentials);
  request.addValue("Content-Type", "application/json");
  request.addValue("Accept", "application/json");
  request.networkServiceType = kBackgroundServiceType;
  request.httpBody = std::move(body);
  return request;
}

platform::URLRequest buildLogUpload(std::string_view versionedBase, std::string_view clientID,
                                    const Credentials& credentials) {
  auto request =
      authorizedRequest(platform::concat(versionedBase, clientID, "/", endpoints::logAPI), "POST", credentials);
  request.addValue("Content-Type", "multipart/form-data;boundary=boundary");
  request.addValue("Connection", "Keep-Alive");
  request.addValue("ENCTYPE", "multipart/form-data");
  request.addValue("uploaded_file", std::string(endpoints::logFile));
  return request;
}

}  // namespace tarvo

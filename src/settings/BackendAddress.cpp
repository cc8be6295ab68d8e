#include "settings/BackendAddress.h"

#include <algorithm>

#include "platform/urlsession/URLRequest.h"

namespace tarvo {

std::optional<std::string> refusalOfBackendAddress(std::string_view url, bool allowPlainHttp) {
  if (!platform::isValidHttpUrl(url)) return "not an absolute http or https URL";
  if (url.find_first_of("?#@") != std::string_view::npos) return "it has a query, a fragment or credentials";
  const bool secure = url.size() >= 8 && (url[4] == 's' || url[4] == 'S');
  if (!secure && !allowPlainHttp && !platform::isLoopbackHost(platform::hostOf(url)))
    return "plain http is only for loopback: positions and credentials would travel readable";
  return std::nullopt;
}

bool isUsableClientID(std::string_view clientID) {
  return std::all_of(clientID.begin(), clientID.end(), [](char c) {
    const bool alphanumeric = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    return alphanumeric || std::string_view("-._~!$&'()*+,;=:@").find(c) != std::string_view::npos;
  });
}

}  // namespace tarvo

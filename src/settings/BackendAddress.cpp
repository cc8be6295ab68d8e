#include "settings/BackendAddress.h"

#include <algorithm>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Files.h"
#include "platform/urlsession/URLRequest.h"

namespace tarvo {
namespace {

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

/// Whether the character may stand in a segment of a path as it is.
bool standsInPath(char c) { return platform::isPlain(c, platform::kPathMarks); }

}  // namespace

std::optional<std::string> refusalOfBackendAddress(std::string_view url, bool allowPlainHttp) {
  if (!platform::isValidHttpUrl(url)) return "not an absolute http or https URL";
  if (url.find_first_of("?#@") != std::string_view::npos) return "it has a query, a fragment or credentials";
  const bool secure = url.size() >= 8 && (url[4] == 's' || url[4] == 'S');
  if (!secure && !allowPlainHttp && !platform::isLoopbackHost(platform::hostOf(url)))
    return "plain http is only for loopback: positions and credentials would travel readable";
  return std::nullopt;
}

bool isUsableClientID(std::string_view clientID) {
  std::string plain;  // with "%2E" as the dot that it means
  while (!clientID.empty()) {
    std::size_t length = 1;
    char c = clientID.front();
    if (c == '%') {
      length = 3;
      if (clientID.size() < length || !isHexDigit(clientID[1]) || !isHexDigit(clientID[2])) return false;
      if (clientID[1] == '2' && (clientID[2] == 'E' || clientID[2] == 'e')) c = '.';
    } else if (!standsInPath(c)) {
      return false;
    }
    plain += c;
    clientID.remove_prefix(length);
  }
  return plain != "." && plain != "..";
}

bool isUsableUserUUID(std::string_view uuid) {
  return platform::isPlainFileName(uuid) && std::all_of(uuid.begin(), uuid.end(), standsInPath);
}

}  // namespace tarvo

#include "platform/urlsession/URLRequest.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>

#include "platform/foundation/Text.h"
#include "platform/urlsession/CurlText.h"

namespace tarvo::platform {
namespace {

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() > end.size() && equalIgnoringCase(text.substr(text.size() - end.size()), end);
}

/// The host as the transfer itself would read it, so that no two parsers disagree about where a request goes.
std::optional<std::string> parsedHost(const std::string& url) {
  const CurlURL parser(curl_url());
  constexpr unsigned flags = CURLU_PATH_AS_IS | CURLU_NON_SUPPORT_SCHEME;
  if (!parser || curl_url_set(parser.get(), CURLUPART_URL, url.c_str(), flags) != CURLUE_OK) return std::nullopt;
  return urlPart(parser.get(), CURLUPART_HOST);
}

std::string withoutBrackets(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  return std::string(host);
}

}  // namespace

std::optional<std::string> URLRequest::value(std::string_view name) const {
  for (const auto& [key, text] : headers)
    if (equalIgnoringCase(key, name)) return text;
  return std::nullopt;
}

std::string HTTPURLResponse::debugDescription() const {
  std::string out = concat("<NSHTTPURLResponse> { URL: ", url, " } { Status Code: ", statusCode, ", Headers {");
  const char* separator = "";
  for (const auto& [name, value] : headers) {
    out += concat(separator, name, ": ", value);
    separator = ", ";
  }
  return out + "} }";
}

bool isValidHttpUrl(std::string_view url) {
  const auto scheme = url.substr(0, std::min(url.find("://"), url.size()));
  if (!equalIgnoringCase(scheme, "http") && !equalIgnoringCase(scheme, "https")) return false;
  const auto isBlankOrControl = [](unsigned char c) { return c <= ' ' || c == 0x7f; };
  if (std::any_of(url.begin(), url.end(), isBlankOrControl)) return false;
  // The parser is lenient about further slashes and would take the path's first part for the host.
  const auto rest = url.substr(std::min(scheme.size() + 3, url.size()));
  return !rest.empty() && rest.front() != '/' && !parsedHost(std::string(url)).value_or("").empty();
}

std::string hostOf(std::string_view urlOrName) {
  if (urlOrName.find("://") == std::string_view::npos) return withoutBrackets(urlOrName);
  return withoutBrackets(parsedHost(std::string(urlOrName)).value_or(""));
}

bool isLoopbackHost(std::string_view host) {
  if (equalIgnoringCase(host, "localhost") || endsWith(host, ".localhost")) return true;
  const std::string text(host);
  in_addr v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == IN_LOOPBACKNET;
  in6_addr v6{};
  return inet_pton(AF_INET6, text.c_str(), &v6) == 1 && v6.s6_addr[15] == 1 &&
         std::all_of(v6.s6_addr, v6.s6_addr + 15, [](unsigned char byte) { return byte == 0; });
}

}  // namespace tarvo::platform

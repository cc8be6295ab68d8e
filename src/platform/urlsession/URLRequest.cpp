#include "platform/urlsession/URLRequest.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

struct CurlURLCleanup {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using CurlURL = std::unique_ptr<CURLU, CurlURLCleanup>;

std::optional<std::string> urlPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return std::nullopt;
  std::string out(text);
  curl_free(text);
  return out;
}

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

constexpr std::pair<int, const char*> kErrorTexts[] = {
    {urlError::badURL, "bad URL"},
    {urlError::timedOut, "The request timed out."},
    {urlError::unsupportedURL, "unsupported URL"},
    {urlError::cannotFindHost, "A server with the specified hostname could not be found."},
    {urlError::cannotConnectToHost, "Could not connect to the server."},
    {urlError::networkConnectionLost, "The network connection was lost."},
    {urlError::tooManyRedirects, "too many HTTP redirects"},
    {urlError::notConnectedToInternet, "The Internet connection appears to be offline."},
    {urlError::badServerResponse, "There was a bad response from the server."},
    {urlError::dataLengthExceedsMaximum, "resource exceeds maximum size"},
    {urlError::secureConnectionFailed,
     "An SSL error has occurred and a secure connection to the server cannot be made."},
    {urlError::serverCertificateUntrusted, "The certificate for this server is invalid."},
    {urlError::fileDoesNotExist, "The file does not exist."},
    {urlError::fileIsDirectory, "The file is a directory."},
    {urlError::noPermissionsToReadFile, "The file may not be read."},
    {urlError::cannotOpenFile, "The file cannot be opened."},
    {urlError::requestBodyStreamExhausted, "request body stream exhausted"}};

std::string describe(int code) {
  for (const auto& [known, text] : kErrorTexts)
    if (known == code) return text;
  return "unknown error";
}

}  // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.empty() || curl_strnequal(a.data(), b.data(), a.size()) != 0);
}

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

std::optional<std::string> redirectTarget(const std::string& base, const std::string& location) {
  const CurlURL url(curl_url());
  constexpr unsigned flags = CURLU_URLENCODE | CURLU_ALLOW_SPACE | CURLU_NON_SUPPORT_SCHEME;
  if (!url || curl_url_set(url.get(), CURLUPART_URL, base.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_URL, location.c_str(), flags) != CURLUE_OK)
    return std::nullopt;
  curl_url_set(url.get(), CURLUPART_USER, nullptr, 0);
  curl_url_set(url.get(), CURLUPART_PASSWORD, nullptr, 0);
  return urlPart(url.get(), CURLUPART_URL);
}

std::optional<Seconds> retryAfter(const HTTPURLResponse& response, Date now) {
  const auto dateIn = [](const std::string& text) -> std::optional<double> {
    const auto seconds = curl_getdate(text.c_str(), nullptr);
    return seconds < 0 ? std::nullopt : std::optional(static_cast<double>(seconds));
  };
  std::optional<std::string> asked;
  double from = secondsSince1970(now);
  for (const auto& [name, value] : response.headers) {
    if (equalIgnoringCase(name, "Retry-After")) asked = value;
    if (equalIgnoringCase(name, "Date")) from = dateIn(value).value_or(from);
  }
  if (!asked || asked->empty()) return std::nullopt;
  if (asked->find_first_not_of("0123456789") == asked->npos) return Seconds(std::stod(asked->substr(0, 300)));
  const auto date = dateIn(*asked);
  return date ? std::optional(Seconds(std::max(*date - from, 0.0))) : std::nullopt;
}

Error transferError(int code, const std::string& url, std::string_view reason) {
  const std::string text = describe(code);
  Error error{
      NSURLErrorDomain, code, text, {{NSLocalizedDescriptionKey, text}, {NSURLErrorFailingURLStringErrorKey, url}}};
  if (!reason.empty()) error.userInfo[NSLocalizedFailureReasonErrorKey] = std::string(reason);
  return error;
}

}  // namespace tarvo::platform

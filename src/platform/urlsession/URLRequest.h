#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// One HTTP request, complete. The URL is sent as it stands.
struct URLRequest {
  std::string url;
  std::string httpMethod = "GET";
  std::vector<std::pair<std::string, std::string>> headers;  ///< in order; names as given
  std::optional<std::string> httpBody;
  Seconds timeoutInterval{60};  ///< of silence, real time
  int networkServiceType = 0;   ///< 3: background
  /// The request may be a repeat of an earlier one that has not been answered yet. Two copies may be under way; a third
  /// ends the oldest of them, whose completion is then never called. A copy has this mark too, the same URL, and either
  /// the same body or more time behind it than its time-out.
  bool replacesOlder = false;
  bool followsRedirects = true;  ///< else a redirect is the answer
  /// Where the transfer's bytes are added while they come and go: requests and replies with their headers, as curl
  /// counts them; what TLS, proxy and network add is not among them. Empty: nobody counts.
  std::shared_ptr<std::atomic<std::uint64_t>> bytesMoved{};

  void addValue(std::string name, std::string value) { headers.emplace_back(std::move(name), std::move(value)); }
  /// The first header of that name, in any case; absent without.
  std::optional<std::string> value(std::string_view name) const;
  /// Its URL; never headers or body.
  std::string description() const { return url; }
};

struct HTTPURLResponse {
  std::string url;  ///< of the last hop
  int statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  /// `<NSHTTPURLResponse> { URL: U } { Status Code: 500, Headers {…} }`
  std::string debugDescription() const;
};

/// NSURLErrorDomain.
namespace urlError {
inline constexpr int unknown = -1;
inline constexpr int badURL = -1000;
inline constexpr int timedOut = -1001;
inline constexpr int unsupportedURL = -1002;
inline constexpr int cannotFindHost = -1003;
inline constexpr int cannotConnectToHost = -1004;
inline constexpr int networkConnectionLost = -1005;
inline constexpr int tooManyRedirects = -1007;
inline constexpr int notConnectedToInternet = -1009;
inline constexpr int badServerResponse = -1011;
inline constexpr int secureConnectionFailed = -1200;
inline constexpr int serverCertificateUntrusted = -1202;
inline constexpr int requestBodyStreamExhausted = -1021;
inline constexpr int fileDoesNotExist = -1100;
inline constexpr int fileIsDirectory = -1101;
inline constexpr int noPermissionsToReadFile = -1102;
inline constexpr int dataLengthExceedsMaximum = -1103;
inline constexpr int cannotOpenFile = -3001;
}  // namespace urlError

/// User information of an error: the URL that failed, of the last hop.
inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";

/// The error of a transfer that failed at `url`, with the text that belongs to its code; `reason` may be empty.
Error transferError(int code, const std::string& url, std::string_view reason);

/// Whether the text is an absolute http or https URL with a host and without blanks or control characters.
bool isValidHttpUrl(std::string_view url);
/// Host of a URL, or the text itself when it is a bare name; brackets of an IPv6 address removed.
std::string hostOf(std::string_view urlOrName);
/// localhost, *.localhost, 127.0.0.0/8, ::1.
bool isLoopbackHost(std::string_view host);
/// Where a reply to `base` sends its client, without user and password. Absent when it cannot be understood.
std::optional<std::string> redirectTarget(const std::string& base, const std::string& location);
/// How long an answer asks its client to wait ("Retry-After", in seconds or as a date, which counts from the answer's
/// own "Date" or else from `now`); never negative. Absent when it does not ask, or not in these forms.
std::optional<Seconds> retryAfter(const HTTPURLResponse& response, Date now);
/// Compares ASCII letters in either case, whatever the locale.
bool equalIgnoringCase(std::string_view a, std::string_view b);

}  // namespace tarvo::platform

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvo::sandbox::live {

/// What a browser or tool says about itself in a request for people; empty where it says nothing.
struct Visit {
  std::string method, host, origin, authorization, cookie, contentType, token;  ///< `token`: of the query
};

/// Decides who may look at the sandbox and steer it. On loopback everybody of this machine may, but no page of another
/// origin: neither by a name that leads here (the Host header is checked) nor by a form it sends. Elsewhere each
/// request carries the token.
///
/// Threads: any.
class Guard {
 public:
  /// `address` is what the server is bound to; an empty token means that none is asked for.
  Guard(std::string address, std::string token) : address_(std::move(address)), token_(std::move(token)) {}

  /// 401 or 403, or nothing when the request may be answered.
  std::optional<int> refuses(const Visit& visit) const;

  const std::string& token() const { return token_; }
  static constexpr const char* kCookie = "tarvo_sandbox";

 private:
  const std::string address_, token_;
};

bool isLoopback(std::string_view address);

/// Takes as long for every wrong text of the right length.
bool sameSecret(std::string_view one, std::string_view other);

/// 128 random bits.
std::string newToken();

}  // namespace tarvo::sandbox::live

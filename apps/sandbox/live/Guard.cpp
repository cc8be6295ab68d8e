#include "sandbox/live/Guard.h"

#include <openssl/crypto.h>

#include <random>

namespace tarvo::sandbox::live {
namespace {

/// "localhost" of "localhost:8484", "::1" of "[::1]:8484".
std::string_view hostName(std::string_view host) {
  if (host.starts_with('[')) return host.substr(1, host.find(']') - 1);
  return host.substr(0, host.find(':'));
}

std::string_view cookieNamed(std::string_view cookies, std::string_view name) {
  while (!cookies.empty()) {
    const std::size_t end = cookies.find(';');
    std::string_view one = cookies.substr(0, end);
    cookies.remove_prefix(end == cookies.npos ? cookies.size() : end + 1);
    while (one.starts_with(' ')) one.remove_prefix(1);
    if (one.starts_with(name) && one.substr(name.size()).starts_with('=')) return one.substr(name.size() + 1);
  }
  return {};
}

}  // namespace

bool isLoopback(std::string_view address) {
  // A name may begin like a number: "127.example".
  return address == "localhost" || address == "::1" ||
         (address.starts_with("127.") && address.find_first_not_of("0123456789.") == address.npos);
}

bool sameSecret(std::string_view one, std::string_view other) {
  return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

std::string newToken() {
  std::random_device source;
  std::string text;
  for (int digit = 0; digit < 32; ++digit) text += "0123456789abcdef"[source() & 15];
  return text;
}

std::optional<int> Guard::refuses(const Visit& visit) const {
  if (token_.empty()) {
    const std::string_view name = hostName(visit.host);
    if (!isLoopback(name) && name != address_) return 403;
  } else {
    constexpr std::string_view kBearer = "Bearer ";
    const std::string_view given = visit.authorization.starts_with(kBearer)
                                       ? std::string_view(visit.authorization).substr(kBearer.size())
                                   : visit.token.empty() ? cookieNamed(visit.cookie, kCookie)
                                                         : std::string_view(visit.token);
    if (!sameSecret(given, token_)) return 401;
  }
  if (visit.method == "GET") return std::nullopt;
  const std::string_view origin = visit.origin;
  if (!origin.empty() && !(origin.starts_with("http") && origin.ends_with("://" + visit.host))) return 403;
  // A form of another page cannot send this type without asking first, which nobody here allows.
  if (visit.method == "POST" && !visit.contentType.starts_with("application/json")) return 403;
  return std::nullopt;
}

}  // namespace tarvo::sandbox::live

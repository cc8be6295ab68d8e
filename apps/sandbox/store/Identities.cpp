#include "sandbox/store/Identities.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <random>

namespace tarvo::sandbox {
namespace {

std::string randomHex(std::size_t digits) {
  static thread_local std::random_device source;
  std::string text;
  for (std::size_t i = 0; i < digits; ++i) text += "0123456789abcdef"[source() & 15];
  return text;
}

/// Random but for the digits that tell the version.
std::string newUUID() {
  std::string digits = randomHex(32);
  digits[12] = '4';
  digits[16] = "89ab"[digits[16] & 3];
  for (const std::size_t dash : {8u, 13u, 18u, 23u}) digits.insert(dash, "-");
  return digits;
}

std::string creationDate() {
  using std::chrono::milliseconds;
  const auto now = std::chrono::time_point_cast<milliseconds>(std::chrono::system_clock::now());
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  std::array<char, 32> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  const std::string fraction = std::to_string(1000 + now.time_since_epoch().count() % 1000);
  return std::string(text.data(), size) + "." + fraction.substr(1) + "+0000";
}

}  // namespace

Identity newIdentity() { return {newUUID(), randomHex(32), creationDate()}; }

std::string_view name(derive::Kind kind) {
  constexpr std::string_view kNames[] = {"stay", "trip", "place", "prediction", "state"};
  return kNames[static_cast<std::size_t>(kind)];
}

}  // namespace tarvo::sandbox

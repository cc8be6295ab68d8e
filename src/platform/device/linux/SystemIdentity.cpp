#include "platform/device/SystemIdentity.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

constexpr std::string_view hexDigits = "0123456789ABCDEF";

/// Version 4, RFC 4122.
std::optional<std::string> randomUuid() {
  std::array<std::uint8_t, 16> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return std::nullopt;
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += hexDigits[bytes[i] >> 4];
    text += hexDigits[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace

std::string hostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  return name.data();
}

std::optional<std::string> releaseValue(std::string_view osRelease, std::string_view key) {
  while (!osRelease.empty()) {
    const std::size_t end = std::min(osRelease.find('\n'), osRelease.size());
    std::string_view line = osRelease.substr(0, end);
    osRelease.remove_prefix(std::min(end + 1, osRelease.size()));
    if (!line.starts_with(key) || line.substr(key.size(), 1) != "=") continue;
    line.remove_prefix(key.size() + 1);
    if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') && line.back() == line.front())
      line = line.substr(1, line.size() - 2);
    std::string value;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '\\' && i + 1 < line.size()) ++i;
      value += line[i];
    }
    return value;
  }
  return std::nullopt;
}

std::string systemReleaseValue(std::string_view key) {
  for (const char* file : {"/etc/os-release", "/usr/lib/os-release"})
    if (auto text = readFile(file)) return releaseValue(*text, key).value_or("");
  return {};
}

std::optional<std::string> upperCaseUuid(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string upper;
  for (const char c : text) {
    const bool dash = upper.size() == 8 || upper.size() == 13 || upper.size() == 18 || upper.size() == 23;
    upper += c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
    if (dash ? c != '-' : hexDigits.find(upper.back()) == std::string_view::npos) return std::nullopt;
  }
  return upper;
}

std::optional<std::string> keptUuid(const std::filesystem::path& file) {
  if (auto kept = readFile(file); kept && upperCaseUuid(*kept) == *kept) return *kept;
  const std::optional<std::string> made = randomUuid();
  if (!made) return std::nullopt;
  auto failed = createPrivateDirectories(file.parent_path());
  if (!failed) failed = writeFileAtomically(file, *made, true);
  if (failed) {
    NSLog(concat("device identifier cannot be kept: ", *failed));
    return std::nullopt;
  }
  return made;
}

}  // namespace tarvo::platform

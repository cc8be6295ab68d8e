#include "sandbox/wire/Logs.h"

#include <algorithm>

namespace tarvo::sandbox {
namespace {

constexpr std::string_view kOpening = "--boundary\r\n";
constexpr std::string_view kDelimiter = "\r\n--boundary";
constexpr std::string_view kDispositionBegin = "Content-Disposition: form-data; name=\"file\"; filename=\"";

bool isPlainName(std::string_view name) {
  return !name.empty() && name.size() <= 200 && name != "." && name.find("..") == name.npos &&
         std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c == '/' || c == '"'; });
}

/// What stands between the quotes behind "filename="; empty without such a line.
std::string_view fileName(std::string_view header) {
  while (!header.empty()) {
    const std::size_t end = header.find("\r\n");
    std::string_view line = header.substr(0, end);
    header.remove_prefix(end == header.npos ? header.size() : end + 2);
    if (!line.starts_with(kDispositionBegin) || !line.ends_with('"')) continue;
    line.remove_prefix(kDispositionBegin.size());
    return line.substr(0, line.size() - std::min<std::size_t>(line.size(), 1));
  }
  return {};
}

}  // namespace

std::optional<LogUpload> readLogUpload(std::string_view body, std::string& refusal) {
  const std::size_t blankLine = body.find("\r\n\r\n");
  if (!body.starts_with(kOpening) || blankLine == body.npos || blankLine < kOpening.size()) {
    refusal = "no part header";
    return std::nullopt;
  }
  const std::string_view name = fileName(body.substr(kOpening.size(), blankLine - kOpening.size()));
  if (!isPlainName(name)) {
    refusal = "no plain file name";
    return std::nullopt;
  }
  const std::string_view part = body.substr(blankLine + 4);
  const std::size_t end = part.find(kDelimiter);
  if (end == part.npos || !part.substr(end + kDelimiter.size()).starts_with("--\r\n")) {
    refusal = end == part.npos ? "no closing boundary" : "a boundary that does not close";
    return std::nullopt;
  }
  return LogUpload{std::string(name), part.substr(0, end)};
}

}  // namespace tarvo::sandbox

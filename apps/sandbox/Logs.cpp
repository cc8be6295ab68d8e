#include "sandbox/Logs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

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

[[noreturn]] void fail(const std::filesystem::path& file) {
  throw std::system_error(errno, std::generic_category(), file.string());
}

void writeThrough(const std::filesystem::path& file, std::string_view content) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (descriptor < 0) fail(file);
  ssize_t written = 0;
  while (!content.empty() && ((written = ::write(descriptor, content.data(), content.size())) >= 0 || errno == EINTR))
    content.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  const bool done = content.empty() && ::fsync(descriptor) == 0;
  const int why = errno;
  ::close(descriptor);
  errno = why;
  if (!done) fail(file);
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

void LogFolder::keep(const LogUpload& log) {
  const std::lock_guard lock(mutex_);
  if (std::filesystem::create_directories(folder_))
    std::filesystem::permissions(folder_, std::filesystem::perms::owner_all);
  // No upload can bear this name.
  const std::filesystem::path incoming = folder_ / "..incoming";
  writeThrough(incoming, log.content);
  std::filesystem::rename(incoming, folder_ / log.file);
}

}  // namespace tarvo::sandbox

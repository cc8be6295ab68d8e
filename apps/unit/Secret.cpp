#include "unit/Secret.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace tarvo::unit {

std::optional<std::string> readSecret(const std::filesystem::path& file, std::string& warning, std::string& error) {
  constexpr std::size_t kLargest = 4096;
  std::ifstream opened(file, std::ios::binary);
  std::string text(kLargest + 1, '\0');
  opened.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!opened.is_open() || opened.bad()) {
    error = file.string() + ": " + std::strerror(errno);
    return std::nullopt;
  }
  text.resize(static_cast<std::size_t>(opened.gcount()));
  const bool isTooLong = text.size() > kLargest;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (isTooLong || text.empty()) {
    error = file.string() + (isTooLong ? " holds more than a secret" : " is empty");
    return std::nullopt;
  }
  struct stat status = {};
  if (::stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0)
    warning = file.string() + " can be read by everybody on this machine: chmod 600 it";
  return text;
}

}  // namespace tarvo::unit

#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

namespace tarvo::test {

/// The other end of a serial line, which `path` names.
struct Line {
  explicit Line(std::filesystem::path itsPath) : path(std::move(itsPath)), end(::posix_openpt(O_RDWR | O_NOCTTY)) {
    ::grantpt(end);
    ::unlockpt(end);
    std::filesystem::create_symlink(::ptsname(end), path);
  }
  ~Line() {
    std::filesystem::remove(path);
    ::close(end);
  }
  bool send(const std::string& text) const {
    return ::write(end, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  const std::filesystem::path path;
  const int end;
};

}  // namespace tarvo::test

#include "platform/foundation/Executable.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <system_error>
#include <vector>

namespace tarvo::platform {

std::filesystem::path executableFile() {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/exe", ignored);
}

std::filesystem::path userDirectory() {
  if (const char* home = ::getenv("HOME"); home != nullptr && *home == '/') return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
    return found->pw_dir;
  return "/";
}

}  // namespace tarvo::platform

#include "unit/UnixAddress.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace tarvo::unit {

UnixAddress::UnixAddress(const std::filesystem::path& folder)
    : folder_(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
  if (folder_ < 0) throw std::system_error(errno, std::generic_category(), folder.string());
  address_.sun_family = AF_UNIX;
  const std::string direct = (folder / "control").string();
  const std::string path =
      direct.size() < sizeof address_.sun_path ? direct : "/proc/self/fd/" + std::to_string(folder_) + "/control";
  path.copy(address_.sun_path, sizeof address_.sun_path - 1);
}

UnixAddress::~UnixAddress() { ::close(folder_); }

}  // namespace tarvo::unit

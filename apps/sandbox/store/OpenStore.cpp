#include "sandbox/store/OpenStore.h"

#include <stdexcept>

#include "sandbox/store/SqliteStore.h"

namespace tarvo::sandbox {

std::unique_ptr<Store> openStore(const std::string& url, const std::filesystem::path& directory) {
  if (!url.empty()) throw std::runtime_error("no engine for a store of this kind: " + url.substr(0, url.find(':')));
  if (std::filesystem::create_directories(directory))
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
  return std::make_unique<SqliteStore>(directory / "sandbox.sqlite", directory / "sandbox-logs");
}

}  // namespace tarvo::sandbox

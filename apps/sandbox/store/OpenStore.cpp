#include "sandbox/store/OpenStore.h"

#include <stdexcept>

#include "sandbox/store/SqliteStore.h"
#ifdef TARVO_SANDBOX_POSTGRES
#include "sandbox/store/PostgresStore.h"
#endif

namespace tarvo::sandbox {

std::unique_ptr<Store> openStore(const std::string& url, const std::filesystem::path& directory) {
  const bool isPostgres = url.starts_with("postgresql://") || url.starts_with("postgres://");
#ifdef TARVO_SANDBOX_POSTGRES
  if (isPostgres) return std::make_unique<postgres::PostgresStore>(url);
#else
  if (isPostgres) throw std::runtime_error("this program was built without PostgreSQL");
#endif
  if (!url.empty()) throw std::runtime_error("no engine for a store of this kind: " + url.substr(0, url.find(':')));
  if (std::filesystem::create_directories(directory))
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
  return std::make_unique<SqliteStore>(directory / "sandbox.sqlite", directory / "sandbox-logs");
}

}  // namespace tarvo::sandbox

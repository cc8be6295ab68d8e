#include "platform/persistence/StoreError.h"

#include "platform/foundation/Text.h"

namespace tarvo::platform {

Error storeError(StoreErrorCode code, std::string description, const std::filesystem::path& file) {
  Error error{NSCocoaErrorDomain, static_cast<std::int64_t>(code), std::move(description), {}};
  if (!file.empty()) error.userInfo.emplace("NSFilePath", file.string());
  return error;
}

Error noStoreError(std::string_view operation) {
  return storeError(StoreErrorCode::operation,
                    concat("This NSPersistentStoreCoordinator has no persistent stores.  It cannot perform a ",
                           operation, " operation."));
}

}  // namespace tarvo::platform

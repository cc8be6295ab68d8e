#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// The platform's numbers for what can go wrong with a store.
enum class StoreErrorCode : std::int64_t {
  fileReadUnknown = 256,
  fileReadCorrupt = 259,
  missingObject = 133000,
  invalidType = 134000,
  incompatibleSchema = 134020,
  save = 134030,
  coreData = 134060,
  operation = 134070,
  open = 134080,
  incompatibleVersionHash = 134100,
};

/// `file` may be empty.
Error storeError(StoreErrorCode code, std::string description, const std::filesystem::path& file = {});

/// "… has no persistent stores.  It cannot perform a <operation> operation."
Error noStoreError(std::string_view operation);

}  // namespace tarvo::platform

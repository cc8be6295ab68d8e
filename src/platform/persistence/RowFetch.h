#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/foundation/Error.h"
#include "platform/persistence/EntityObjects.h"
#include "platform/persistence/FetchPlan.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {

using Objects = std::vector<std::shared_ptr<NSManagedObject>>;

/// The rows of a plan whose objects have no unsaved changes, in the file's order. First their keys, for most
/// queries from an index alone: what is in use need not be read, and SQLite sorts keys rather than records.
Result<Objects> fetchRows(NSPersistentStoreCoordinator::Store& store, EntityObjects& objects, const FetchPlan& plan,
                          std::size_t limit);

}  // namespace tarvo::platform

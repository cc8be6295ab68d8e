#pragma once

#include "sandbox/store/Database.h"

namespace tarvo::sandbox {

/// Makes the tables of the file, or brings those of an earlier version up to date; as a whole or not at all.
/// Errors: std::runtime_error, also for a file of a later version.
void prepareSchema(Database& database);

}  // namespace tarvo::sandbox

#pragma once

#include <set>

#include "sandbox/store/PostgresConnection.h"

namespace tarvo::sandbox::postgres {

/// Makes the tables in the first schema of the search path, unless they are there; as a whole or not at all, whoever
/// else does it at the same time. Errors: Error, also for tables of a later version.
void prepareSchema(Connection& connection);

/// The day that a position is kept under, in days since 1970; absent where it belongs to the default partition: without
/// a date, and where the date says more about the unit's clock than about the position (before 2000, or after
/// tomorrow), lest such clocks fill the database with tables.
std::optional<int> partitionDay(double time);

/// Makes the partitions of these days that are not there, each in a transaction of its own: nothing may be open on this
/// connection. Processes that do it at once take turns.
void makeDays(Connection& connection, const std::set<int>& days);

}  // namespace tarvo::sandbox::postgres

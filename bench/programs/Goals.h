#pragma once

#include <array>

namespace tarvo::bench {

enum class Goal {
  ratioAtLeast,  ///< measured / limit
  ratioAtMost,
  atLeast,  ///< measured alone
  atMost,
  aboveLimitAtMost,  ///< measured - limit
  none,              ///< for comparison only
};

/// One line of the table.
struct Figure {
  const char* group;  ///< its name on the command line of bench/run
  const char* title;
  const char* unit;
  const char* measured;  ///< key of the values
  const char* limit;     ///< key of what it stands beside, or null
  Goal kind;
  double goal;
};

inline constexpr std::array kFigures{
    Figure{"intake", "fix to durable row, one save each", "rows/s", "intake.sdk", "intake.limit", Goal::ratioAtLeast,
           0.8},
    Figure{"intake", "the same, user-space instructions", "per row", "intake.sdk.instructions",
           "intake.limit.instructions", Goal::atMost, 80000},
    Figure{"intake", "the same, CPU time of all threads", "us per row", "intake.sdk.cpu", "intake.limit.cpu",
           Goal::none, 0},
    Figure{"intake", "1,000,000 rows stored, beside the empty store", "rows/s", "intake.sdk.1m", "intake.sdk",
           Goal::ratioAtLeast, 0.95},
    Figure{"intake", "1,000,000 rows stored, beside the limit there", "rows/s", "intake.sdk.1m", "intake.limit.1m",
           Goal::none, 0},
    Figure{"flash", "written for a stored position", "bytes", "flash.stored.sdk", "flash.stored.limit", Goal::atMost,
           6000},
    Figure{"flash", "written from a fix to its acknowledgement", "bytes", "flash.acknowledged.sdk",
           "flash.acknowledged.limit", Goal::atMost, 11000},
    Figure{"fetch", "fetch 1000 unsent + text, 1,000 rows stored", "us", "fetch.sdk.1k", "fetch.limit.1k",
           Goal::ratioAtMost, 1.5},
    Figure{"fetch", "fetch 1000 unsent + text, 100,000 rows stored", "us", "fetch.sdk.100k", "fetch.limit.100k",
           Goal::ratioAtMost, 1.5},
    Figure{"fetch", "fetch 1000 unsent + text, 1,000,000 rows stored", "us", "fetch.sdk.1m", "fetch.limit.1m",
           Goal::ratioAtMost, 1.5},
    Figure{"fetch", "the last beside the first", "us", "fetch.sdk.1m", "fetch.sdk.1k", Goal::ratioAtMost, 1.2},
    Figure{"fetch", "fetch + text, user-space instructions", "per 1000", "fetch.sdk.instructions",
           "fetch.limit.instructions", Goal::none, 0},
    Figure{"fetch", "text of 1000 positions", "us", "text.sdk", "text.limit", Goal::ratioAtMost, 1.3},
    Figure{"fetch", "text, user-space instructions", "per 1000", "text.sdk.instructions", "text.limit.instructions",
           Goal::none, 0},
    Figure{"drain", "drain of 100,000, beside marks in one transaction", "positions/s", "drain.100k", "drain.limit",
           Goal::atLeast, 80000},
    Figure{"drain", "the same, beside a transaction for each mark", "positions/s", "drain.100k", "drain.each",
           Goal::none, 0},
    Figure{"drain", "the same, CPU time of all threads", "us per position", "drain.100k.cpu", "drain.limit.cpu",
           Goal::none, 0},
    Figure{"memory", "peak memory of the drain of 100,000", "MiB", "memory.100k", nullptr, Goal::atMost, 20},
    Figure{"memory", "peak memory, 100 batches of 1,000,000", "MiB", "memory.1m", nullptr, Goal::atMost, 20},
    Figure{"memory", "the second beside the first", "MiB", "memory.1m", "memory.100k", Goal::ratioAtMost, 1.05},
    Figure{"history", "history of 1,000,000 rows to GeoJSON", "rows/s", "history.sdk", "history.limit",
           Goal::ratioAtLeast, 0.7},
    Figure{"history", "its memory, in sizes of the text", "x", "history.sdk.memory", nullptr, Goal::atMost, 2},
    Figure{"history", "the limit's memory, in sizes of the text", "x", "history.limit.memory", nullptr, Goal::none, 0},
    Figure{"record", "a stored position in memory, with its texts", "bytes", "record", nullptr, Goal::atMost, 256},
    Figure{"startup", "start-up, 1,000,000 rows: until activated", "ms", "startup", "startup.empty",
           Goal::aboveLimitAtMost, 15},
    Figure{"startup", "start-up, 1,000,000 rows: until a position is stored", "ms", "startup.position", "startup.empty",
           Goal::aboveLimitAtMost, 15},
    Figure{"log", "log line, file logging on", "lines/s", "logfile.sdk", "logfile.limit", Goal::ratioAtLeast, 0.8},
    Figure{"log", "the same, CPU time of all threads", "us", "logfile.sdk.cpu", "logfile.limit.cpu", Goal::none, 0},
    Figure{"log", "log line, file logging off, beside the console", "us", "logoff.sdk", "logoff.limit",
           Goal::aboveLimitAtMost, 0.5},
    Figure{"idle", "idle: wake-ups", "per second", "idle.wakeups", nullptr, Goal::atMost, 0},
    Figure{"idle", "idle: private memory", "MiB", "idle.memory", nullptr, Goal::atMost, 2},
    Figure{"idle", "idle: resident memory", "MiB", "idle.resident", nullptr, Goal::none, 0},
    // docs/threading.md: main, location delivery, the engine's main queue and position queue, store context, transfers,
    // completion queue, timer.
    Figure{"idle", "idle: threads", "threads", "idle.threads", nullptr, Goal::atMost, 8},
    Figure{"library", "shared library, stripped", "bytes", "library", nullptr, Goal::atMost, 875000},
};

}  // namespace tarvo::bench

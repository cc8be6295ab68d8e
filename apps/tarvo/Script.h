#pragma once

#include <functional>
#include <string>
#include <vector>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Date.h>

namespace tarvo::cli {

/// Something that happens to the phone during a trip.
struct ScriptEvent {
  platform::Date at;
  std::string text;                     ///< the line of the script, for people
  std::function<void(Tarvo&)> happens;  ///< empty: the process ends here and is launched again
};

/// Reads a script: one JSON object on each line; lines that are empty or begin with "#" are skipped. "at" is a time
/// (ISO 8601) or the number of seconds after the trip's first fix, "event" one of
///
///   launch, foreground, inactive, background   the application's state
///   plug, unplug                               the charger; "level" (0 to 1) may say how full the battery is
///   battery                                    "state" unknown, unplugged, charging or full, and "level"
///   permission                                 "status" notDetermined, restricted, denied, always or whenInUse
///   token                                      "token" of the push service
///   push                                       "payload", an object
///   wake                                       the system reports that background transfers have ended
///   relaunch                                   the process ends as if killed; the next one starts in the background
///
/// Returns the events in the order of their times; those of one time in the order of their lines. Errors: Failure
/// with status kUsage that names file and line.
std::vector<ScriptEvent> readScript(const std::string& file, platform::Date firstFix);

}  // namespace tarvo::cli

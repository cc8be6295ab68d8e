#pragma once

#include <filesystem>

#include <tarvo/platform/Date.h>

namespace tarvo::unit {

/// How long a unit waits before it starts that has failed again and again soon after its start. A service manager
/// starts it anew always after the same time; this makes the pauses grow, from none to five minutes: 0, 0, 5, 15, 35
/// and so on seconds. A start that failed after ten minutes begins anew.
///
/// What is known of earlier starts lies in a file, in a folder that the service manager keeps from a failure to the
/// start after it and no longer (`RuntimeDirectoryPreserve=restart`), and never beyond a boot: times are those since
/// it.
///
/// Threads: one. Errors: none; where the file cannot be read or written there are no pauses.
class QuickEnds {
 public:
  /// Without a folder (an empty path) there are no pauses.
  explicit QuickEnds(const std::filesystem::path& folder);

  /// This process wants to start `now`, a time since the boot; answers what it has to wait before, which is counted in.
  platform::Seconds beforeStart(platform::Seconds now) const;
  /// It ends as it should, so the next start has no pause.
  void endedWell() const;

 private:
  const std::filesystem::path file_;
};

}  // namespace tarvo::unit

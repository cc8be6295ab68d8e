#include "unit/QuickEnds.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <system_error>

namespace tarvo::unit {
namespace {

using platform::Seconds;

/// A process that has run for so long has not failed at its start.
constexpr double kQuick = 600;
constexpr double kShortest = 5, kLongest = 300;

}  // namespace

QuickEnds::QuickEnds(const std::filesystem::path& folder) : file_(folder.empty() ? folder : folder / "starts") {}

Seconds QuickEnds::beforeStart(Seconds now) const {
  if (file_.empty()) return Seconds(0);
  int failures = 0;
  double last = 0;
  const bool isKnown = static_cast<bool>(std::ifstream(file_) >> failures >> last);
  const bool isQuick = isKnown && failures >= 0 && now.count() - last < kQuick;
  failures = isQuick ? std::min(failures + 1, 30) : 0;
  // The service manager's own pause comes to it.
  const double pause = std::clamp(kShortest * (std::exp2(failures - 1) - 1), 0.0, kLongest);
  std::ofstream file(file_, std::ios::trunc);
  file << failures << ' ' << std::fixed << now.count() + pause << '\n';
  return Seconds(file.flush() ? pause : 0);
}

void QuickEnds::endedWell() const {
  std::error_code gone;
  if (!file_.empty()) std::filesystem::remove(file_, gone);
}

}  // namespace tarvo::unit

#include "Progress.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace tarvo::cli {
namespace {

constexpr std::chrono::milliseconds kPeriod{100};
constexpr std::size_t kFixesPerLine = 1000;

}  // namespace

Progress::Progress(LocationManager& engine, std::size_t earlier, std::size_t total, bool inPlace)
    : engine_(engine), earlier_(earlier), total_(total), inPlace_(inPlace && ::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (inPlace_) std::fputs("\n", stderr);
}

void Progress::update(std::size_t fixes) {
  fixes_ = fixes;
  playSeconds_ = seconds();
  if (inPlace_ ? RealTime::now() - shown_ >= kPeriod : fixes % kFixesPerLine == 0) show();
}

void Progress::show() {
  const LocationManager::SyncStatus sync = engine_.syncStatus();
  const double rate = playSeconds_ > 0 ? static_cast<double>(fixes_ - earlier_) / playSeconds_ : 0;
  const std::string line = std::to_string(fixes_) + "/" + std::to_string(total_) + " fixes  " +
                           std::to_string(sync.stored) + " stored  " + std::to_string(sync.positionsPosted) +
                           " posted  " + std::to_string(sync.acknowledged) + " acknowledged  " +
                           std::to_string(static_cast<long long>(rate)) + " fixes/s";
  std::fputs((inPlace_ ? "\r" + line + "\x1b[K" : line + "\n").c_str(), stderr);
  shown_ = RealTime::now();
}

double Progress::seconds() const { return std::chrono::duration<double>(RealTime::now() - start_).count(); }

}  // namespace tarvo::cli

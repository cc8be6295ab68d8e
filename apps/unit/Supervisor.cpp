#include "unit/Supervisor.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include <tarvo/Tarvo.h>

namespace tarvo::unit {
namespace {

using platform::Seconds;

void tell(const std::string& message) { sd_notify(0, message.c_str()); }

}  // namespace

Supervisor::Supervisor(Loop& loop, Loop::Work fed) : loop_(loop), fed_(std::move(fed)) {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) > 0) interval_ = Seconds(static_cast<double>(microseconds) / 1e6 / 2);
  watchdog_ = loop_.timer([this] { ask(); });
}

void Supervisor::ready() {
  tell("READY=1");
  if (interval_.count() > 0) ask();
}

void Supervisor::ask() {
  Tarvo::probe(loop_.whileAlive([this] {
    tell("WATCHDOG=1");
    watchdog_->arm(interval_);
    fed_();
  }));
}

void Supervisor::reloading() const {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const auto microseconds = std::uint64_t(now.tv_sec) * 1'000'000 + std::uint64_t(now.tv_nsec) / 1000;
  tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds));
}

void Supervisor::reloaded() const { tell("READY=1"); }

void Supervisor::stopping(Seconds bound) const {
  const double microseconds = std::min(bound.count(), 1e12) * 1e6;
  tell("STOPPING=1\nEXTEND_TIMEOUT_USEC=" + std::to_string(static_cast<std::uint64_t>(microseconds)));
}

void Supervisor::status(const std::string& line) {
  if (line == told_) return;
  told_ = line;
  tell("STATUS=" + line);
}

}  // namespace tarvo::unit

// Everything at once, a short while in each run, with threads that are delayed before locks and hand-overs as the seed
// says. Races are for ThreadSanitizer to find; here all has to come out right, and in time.
// preset: tsan

#include "faults/Stress.h"

namespace tarvo::faults {
namespace {

std::atomic<std::uint64_t> scheduleSeed{0}, threadsSeen{0};

/// Delays a thread now and then: gives its turn away, or sleeps for some tens of microseconds.
void delay(const char* place) {
  thread_local std::uint64_t state = scheduleSeed + 0x9e3779b97f4a7c15 * ++threadsSeen;
  state = (state ^ static_cast<std::uint64_t>(place[0])) * 6364136223846793005 + 1442695040888963407;
  const std::uint64_t chance = state >> 56, length = state >> 48 & 0x3f;
  const bool isLock = place[0] == 'l';  // of which there are a hundred for each hand-over
  const timespec span{0, static_cast<long>(length * 1000)};
  if (chance < (isLock ? 1 : 64))
    ::nanosleep(&span, nullptr);
  else if (chance < (isLock ? 24 : 192))
    std::this_thread::yield();
}

void once(Host& host, std::uint64_t seed) {
  Host::tellOnlyTheEnd();
  scheduleSeed = std::mt19937_64(seed)();
  platform::faultHook = delay;
  everythingAtOnce(host, seed % 3 == 0 ? Stage::activated : Stage::registered, 4, 1, seed);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  using namespace tarvo::faults;
  Driver driver("schedules", count, arguments, 8);
  std::vector<Row> rows;
  for (std::uint64_t seed = driver.seed; std::ssize(rows) < driver.runs; ++seed)
    rows.push_back({tarvo::platform::concat("--seed ", seed, " --runs 1"), [=](Host& host) { once(host, seed); }});
  return run(driver, rows);
}

// Everything at once, a short while in each run, with threads that are delayed before locks and hand-overs as the seed
// says. Races are for ThreadSanitizer to find; here all has to come out right, and in time.
// preset: tsan

#include "faults/Stress.h"

namespace tarvo::faults {
namespace {

std::atomic<std::uint64_t> scheduleSeed{0}, threadsSeen{0};

/// Delays a thread now and then: gives its turn away, or sleeps for some tens of microseconds.
void delay(const char* place) {
  thread_local std::mt19937_64 random(scheduleSeed + ++threadsSeen);
  const bool isLock = std::string_view(place) == "lock";  // of which there are a hundred for each hand-over
  const auto chance = random() % 256;
  if (chance < (isLock ? 1 : 64))
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 64));
  else if (chance < (isLock ? 24 : 192))
    std::this_thread::yield();
}

void once(Host& host, std::uint64_t seed) {
  scheduleSeed = std::mt19937_64(seed)();
  platform::faultHook = delay;
  everythingAtOnce(host, seed % 3 == 0 ? Stage::activated : Stage::registered, 4, 1, seed);
}

std::vector<Row> rows(const Driver& driver) {
  std::vector<Row> all;
  for (std::uint64_t seed = driver.seed; std::ssize(all) < driver.runs; ++seed)
    all.push_back({platform::concat("--seed ", seed, " --runs 1"), [=](Host& host) { once(host, seed); }});
  return all;
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  return tarvo::faults::run({"schedules", count, arguments, 8}, tarvo::faults::rows);
}

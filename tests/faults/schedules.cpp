// Everything at once, a short while in each run, with threads that are delayed before locks and hand-overs as the seed
// says. Races are for ThreadSanitizer to find; here all has to come out right, and in time.
// preset: tsan

#include <pthread.h>

#include "faults/Stress.h"

namespace tarvo::faults {
namespace {

std::atomic<std::uint64_t> scheduleSeed{0}, threadsSeen{0};

/// Delays a thread now and then: gives its turn away, spins, or sleeps for some tens of microseconds.
void delay(const char* place) {
  thread_local std::uint64_t state = scheduleSeed + 0x9e3779b97f4a7c15 * ++threadsSeen;
  state = (state ^ static_cast<std::uint64_t>(place[0])) * 6364136223846793005 + 1442695040888963407;
  const std::uint64_t chance = state >> 56, length = state >> 48 & 0x3f;
  const bool isLock = place[0] == 'l';  // of which there are a hundred for each hand-over
  if (chance < (isLock ? 1 : 64)) {
    const timespec span{0, static_cast<long>(length * 1000)};
    ::nanosleep(&span, nullptr);
  } else if (chance < (isLock ? 8 : 128)) {
    std::this_thread::yield();
  } else if (chance < (isLock ? 24 : 192)) {
    for (std::uint64_t i = 0; i < length * 8; ++i) std::atomic_signal_fence(std::memory_order_seq_cst);
  }
}

void once(Host& host, std::uint64_t seed) {
  Host::tellOnlyTheEnd();
  std::mt19937_64 random(seed);
  scheduleSeed = random();
  platform::faultHook = delay;
  const std::uint64_t way = random();
  Tarvo tarvo = host.online(way % 2 ? Tarvo::BACKEND_GEOPROFILE : Tarvo::BACKEND_BACKGROUND);
  host.drive(1);
  auto* operations = new Operations(host, true, true);
  stress(tarvo, *operations, 4, 1, seed);
  expectAllDelivered(host, tarvo);
  if (way % 4 == 0) return;
  // Its end finds work in flight, and in half of the runs threads that still call.
  auto call = [operations, tarvo](std::uint64_t number) mutable { operations->call(tarvo, number); };
  for (int thread = 0; thread < 4 && way % 4 > 1; ++thread)
    new std::thread([call, own = std::mt19937_64(seed + thread)]() mutable {
      for (;;) call(own() >> 16);
    });
  LocationService::shared().deliver({Host::fixAt(1, Host::kStart), Host::fixAt(2, Host::kStart)});
  if (way % 8 > 4) tarvo.activate(Tarvo::DEACTIVE_ALL);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  using namespace tarvo::faults;
  Driver driver("schedules", count, arguments, 8);
  for (std::int64_t i = 0; i < driver.runs; ++i) {
    const std::uint64_t seed = driver.seed + static_cast<std::uint64_t>(i);
    run(driver, {tarvo::platform::concat("--seed ", seed, " --runs 1"), [seed](Host& host) { once(host, seed); }});
  }
  return driver.end(driver.runs);
}

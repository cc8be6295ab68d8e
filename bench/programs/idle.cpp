// What an activated process costs while nothing happens: wake-ups of all its threads, memory, threads. It has stored
// and uploaded one position before. usage: bench_idle HOME SECONDS
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "settings/Settings.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

[[noreturn]] void rest(const char* home, int ready) {
  bench::useHome(home);
  bench::Sink sink;
  if (!LocationManager::setRemoteWebServerURL(sink.url())) bench::fail("the sink's address was refused");
  Tarvo host;
  Settings::shared().reloadUserSecret();
  host.activate(Tarvo::BACKEND_BACKGROUND);
  bench::waitUntilIdle();
  LocationManager::Parts& engine = bench::parts();
  engine.didUpdateLocations(engine.locationManager, {bench::fix(0)});
  bench::waitUntilIdle();
  LocationManager::sharedInstance().sendDataInBatchToRemoteWebServer();
  bench::waitUntilIdle();
  const auto status = LocationManager::sharedInstance().syncStatus();
  if (status.unsent + status.awaiting > 0 || status.batchesPosted == 0) bench::fail("the position was not uploaded");
  if (write(ready, "", 1) != 1) bench::fail("nobody observes");
  while (true) pause();
}

struct Observation {
  std::int64_t threads = 0;
  std::int64_t switches = 0;
};

Observation observe(const std::string& process) {
  Observation seen;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
    const std::string status = process + "/task/" + thread.path().filename().string();
    ++seen.threads;
    seen.switches += bench::statusNumber(status, "voluntary_ctxt_switches");
  }
  return seen;
}

/// What no other process can share.
std::int64_t privateKiB(const std::string& process) {
  std::ifstream sums("/proc/" + process + "/smaps_rollup");
  std::int64_t sum = 0;
  bool isThere = false;
  for (std::string line; std::getline(sums, line);)
    if (line.starts_with("Private_")) {
      isThere = true;
      sum += std::strtoll(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
  if (!isThere) bench::fail("the process has no smaps_rollup");
  return sum;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) bench::fail("usage: bench_idle HOME SECONDS");
  const double span = std::strtod(argv[2], nullptr);
  int ends[2];
  if (pipe(ends) != 0) bench::fail("no pipe");
  const pid_t child = fork();
  if (child == 0) rest(argv[1], ends[1]);
  close(ends[1]);
  char byte = 0;
  if (read(ends[0], &byte, 1) != 1) bench::fail("the process that was to rest has ended");
  const std::string process = std::to_string(child);
  // What the last block woke goes back to sleep first.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const Observation before = observe(process);
  std::this_thread::sleep_for(std::chrono::duration<double>(span));
  const Observation after = observe(process);
  bench::report("idle.wakeups", static_cast<double>(after.switches - before.switches) / span);
  bench::report("idle.memory", static_cast<double>(privateKiB(process)) / 1024);
  bench::report("idle.resident", static_cast<double>(bench::statusNumber(process, "VmRSS")) / 1024);
  bench::report("idle.threads", static_cast<double>(after.threads));
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
}

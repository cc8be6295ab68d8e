// What an activated process costs while nothing happens: wake-ups of all its threads, memory, threads. It has stored
// and uploaded one position before. usage: bench_idle HOME SECONDS; the child that it starts: bench_idle HOME --rest
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "settings/Settings.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

[[noreturn]] void rest(const char* home) {
  bench::useHome(home);
  bench::Sink sink;
  if (!LocationManager::setRemoteWebServerURL(sink.url())) bench::fail("the sink's address was refused");
  Tarvo host;
  Settings::shared().reloadUserSecret();
  host.activate(Tarvo::BACKEND_BACKGROUND);
  bench::waitUntilIdle();
  EngineParts& engine = bench::parts();
  engine.didUpdateLocations(engine.locationManager, {bench::fix(0)});
  bench::waitUntilIdle();
  LocationManager::sharedInstance().sendDataInBatchToRemoteWebServer();
  bench::waitUntilIdle();
  const auto status = LocationManager::sharedInstance().syncStatus();
  if (status.unsent + status.awaiting > 0 || status.batchesPosted == 0) bench::fail("the position was not uploaded");
  std::printf("%d\n", getpid());
  std::fflush(stdout);
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

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) bench::fail("usage: bench_idle HOME SECONDS");
  if (argv[2] == std::string_view("--rest")) rest(argv[1]);
  const double span = std::strtod(argv[2], nullptr);
  // Not a fork of this process, which would share what it has written.
  bench::Child child("bench_idle", {argv[1], "--rest"});
  const std::string process = child.line();
  // What the last block woke goes back to sleep first.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const Observation before = observe(process);
  std::this_thread::sleep_for(std::chrono::duration<double>(span));
  const Observation after = observe(process);
  bench::report("idle.wakeups", static_cast<double>(after.switches - before.switches) / span);
  // What no other process can share: pages that were written. Clean ones are those of files, above all of libraries,
  // which every process that maps them shares, also where just now none does.
  bench::report("idle.memory",
                static_cast<double>(bench::statusNumber(process, "Private_Dirty", "smaps_rollup")) / 1024);
  bench::report("idle.resident", static_cast<double>(bench::statusNumber(process, "VmRSS")) / 1024);
  bench::report("idle.threads", static_cast<double>(after.threads));
}

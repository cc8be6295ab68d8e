// How long a process lives that starts the SDK, beside one of the same executable that does nothing.
// usage: bench_startup HOME TIMES; the children that it starts: bench_startup HOME --nothing|--activate|--position
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

[[noreturn]] void startSdk(const char* home, bool untilFirstPosition) {
  bench::useHome(home);
  Tarvo host;
  host.activate(Tarvo::LOCAL_BACKGROUND);
  if (untilFirstPosition) {
    EngineParts& engine = bench::parts();
    engine.didUpdateLocations(engine.locationManager, {bench::fix(0)});
    bench::waitUntilIdle();
  }
  std::_Exit(0);
}

double lifetime(char* home, const char* what) {
  std::string path = bench::neighbour("bench_startup");
  std::string argument = what;
  char* argv[] = {path.data(), home, argument.data(), nullptr};
  const double start = bench::seconds();
  pid_t child = -1;
  int status = 0;
  if (posix_spawn(&child, path.c_str(), nullptr, nullptr, argv, environ) != 0 || waitpid(child, &status, 0) != child ||
      status != 0)
    bench::fail("a child process failed");
  return (bench::seconds() - start) * 1e3;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) bench::fail("usage: bench_startup HOME TIMES");
  const std::string_view what = argv[2];
  if (what == "--nothing") std::_Exit(0);
  if (what.starts_with("--")) startSdk(argv[1], what == "--position");
  // The first of each fills the page cache.
  for (const char* child : {"--nothing", "--activate", "--position"}) lifetime(argv[1], child);
  for (long left = std::strtol(argv[2], nullptr, 10); left > 0; --left) {
    bench::report("startup.empty", lifetime(argv[1], "--nothing"));
    bench::report("startup", lifetime(argv[1], "--activate"));
    bench::report("startup.position", lifetime(argv[1], "--position"));
  }
}

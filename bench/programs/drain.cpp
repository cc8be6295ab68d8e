// Uploads what a home's store holds to a sink and drops it there; prints positions/s and the peak memory.
// usage: bench_drain HOME SUFFIX [BATCHES]   With BATCHES it ends after as many, and prints the memory only.
#include <cstdlib>
#include <optional>
#include <string>

#include "limits/RawStore.h"
#include "settings/Settings.h"
#include "support/Process.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

void check(const std::filesystem::path& home, std::int64_t atLeastAcknowledged) {
  bench::RawStore store(bench::storeIn(home));
  if (store.number("SELECT count(*) FROM Locations WHERE unsent = 0 AND sentWithoutACK = 0") < atLeastAcknowledged)
    bench::fail("positions are not acknowledged");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) bench::fail("usage: bench_drain HOME SUFFIX [BATCHES]");
  const std::filesystem::path home = argv[1];
  const std::string suffix = argv[2];
  const std::int64_t batches = argc > 3 ? std::strtoll(argv[3], nullptr, 10) : 0;
  bench::useHome(home);
  bench::Sink sink(batches);
  if (!LocationManager::setRemoteWebServerURL(sink.url())) bench::fail("the sink's address was refused");
  Settings::shared().reloadUserSecret();
  // Built while deactivated, so that the first pass is the one below.
  const std::int64_t stored = LocationManager::sharedInstance().syncStatus().stored;
  bench::waitUntilIdle();

  Settings::shared().activateStatus.set(Tarvo::BACKEND_BACKGROUND);
  const double start = bench::seconds();
  const double cpuStart = bench::cpuSeconds();
  LocationManager::sharedInstance().sendDataInBatchToRemoteWebServer();
  if (batches > 0)
    sink.waitForAnnouncement();
  else
    bench::waitUntilIdle();
  const double seconds = bench::seconds() - start;
  const double cpu = bench::cpuSeconds() - cpuStart;
  const double peak = bench::peakKiB();
  // Of the last batches the marks and the acknowledgement may be under way.
  check(home, batches > 0 ? (batches - 2) * 1000 : stored);
  if (batches == 0) {
    bench::report("drain" + suffix, static_cast<double>(stored) / seconds);
    bench::report("drain" + suffix + ".cpu", cpu * 1e6 / static_cast<double>(stored));
  }
  bench::report("memory" + suffix, peak / 1024);
  std::_Exit(0);
}

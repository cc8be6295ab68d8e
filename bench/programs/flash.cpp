// What a live unit writes for one position: each fix a transaction, each its own upload and acknowledgement.
// usage: bench_flash HOME stored|acknowledged sdk|limit POSITIONS
// Counted is what the process hands to the file system (`wchar` of /proc/self/io), what moves the write-ahead log into
// the file included: `write_bytes` would count pages of the system's cache, whose size and fate the disk decides.
#include <cstdlib>
#include <filesystem>
#include <string>

#include "limits/PositionInsert.h"
#include "settings/Settings.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

std::int64_t bytesWritten() { return bench::statusNumber("self", "wchar", "io"); }

/// Bytes that a position took, the last write of the log into the file included.
std::int64_t runSdk(const std::filesystem::path& home, bool toTheEnd, std::int64_t positions) {
  bench::useHome(home);
  bench::Sink sink;
  if (!LocationManager::setRemoteWebServerURL(sink.url())) bench::fail("the sink's address was refused");
  Settings::shared().reloadUserSecret();
  Tarvo host;
  host.activate(toTheEnd ? Tarvo::BACKEND_BACKGROUND : Tarvo::LOCAL_BACKGROUND);
  bench::waitUntilIdle();
  EngineParts& engine = bench::parts();
  auto& context = engine.store.managedObjectContext();
  const auto moveLog = [&] { context.performAndWait([&] { (void)context.coordinator().checkpoint(); }); };
  moveLog();
  const std::int64_t storedBefore = LocationManager::sharedInstance().syncStatus().stored;
  const std::int64_t before = bytesWritten();
  for (std::int64_t i = 0; i < positions; ++i) {
    engine.didUpdateLocations(engine.locationManager, {bench::fix(i)});
    bench::waitUntilIdle();
    if (toTheEnd) LocationManager::sharedInstance().sendDataInBatchToRemoteWebServer();
    bench::waitUntilIdle();
  }
  moveLog();
  const std::int64_t written = bytesWritten() - before;
  const auto status = LocationManager::sharedInstance().syncStatus();
  if (status.stored - storedBefore != positions) bench::fail("positions are missing");
  if (toTheEnd && status.acknowledged != status.stored) bench::fail("positions are not acknowledged");
  if (toTheEnd && static_cast<std::int64_t>(status.batchesPosted) < positions) bench::fail("positions went together");
  return written;
}

/// One table of the same pages, without an index.
std::int64_t runLimit(const std::filesystem::path& home, bool toTheEnd, std::int64_t positions) {
  bench::RawStore store(bench::storeIn(home));
  for (const char* index : {"eventTimestamp", "locationTimestamp", "queued", "outOfStep"})
    store.run((std::string("DROP INDEX Locations_") + index).c_str());
  store.run("PRAGMA wal_checkpoint(TRUNCATE)");
  bench::PositionInsert insert(store);
  bench::RawStatement post(store, "UPDATE Locations SET sentWithoutACK = 1 WHERE _key = ?1");
  bench::RawStatement acknowledge(store, "UPDATE Locations SET unsent = 0, sentWithoutACK = 0 WHERE _key = ?1");
  const std::int64_t before = bytesWritten();
  for (std::int64_t i = 0; i < positions; ++i) {
    insert.insert(i, /*unsent=*/true);
    for (bench::RawStatement* mark : {&post, &acknowledge}) {
      if (!toTheEnd) break;
      mark->bind(1, i + 1);
      mark->runOnce();
    }
  }
  store.run("PRAGMA wal_checkpoint(TRUNCATE)");
  return bytesWritten() - before;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) bench::fail("usage: bench_flash HOME stored|acknowledged sdk|limit POSITIONS");
  const std::string what = argv[2];
  const std::string side = argv[3];
  const std::int64_t positions = std::strtoll(argv[4], nullptr, 10);
  const std::int64_t bytes = (side == "sdk" ? runSdk : runLimit)(argv[1], what == "acknowledged", positions);
  bench::report("flash." + what + "." + side, static_cast<double>(bytes) / static_cast<double>(positions));
  std::_Exit(0);
}

// Makes a home with a registered user and a store of the SDK's making, filled by plain SQL.
// usage: bench_stores HOME POSITIONS UNSENT (the newest UNSENT were never posted, the others are acknowledged)
#include <cstdlib>
#include <fstream>

#include "limits/PositionInsert.h"
#include "settings/Settings.h"
#include "store/ObjectStore.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

void makeEmptyStore(const std::filesystem::path& home) {
  std::filesystem::create_directories(home);
  std::ofstream(home / "Info.plist")
      << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
         "<key>CFBundleIdentifier</key><string>org.example.host</string><key>TarvoApiKey</key><string>key</string>"
         "<key>TarvoClientID</key><string>demo</string></dict></plist>";
  bench::useHome(home);
  Settings::shared().storeUserSecret("secret");
  ObjectStore store;
  if (!store.persistentStoreCoordinator()->hasStore()) bench::fail("the SDK made no store");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) bench::fail("usage: bench_stores HOME POSITIONS UNSENT");
  const std::filesystem::path home = argv[1];
  const std::int64_t positions = std::strtoll(argv[2], nullptr, 10);
  const std::int64_t unsent = std::strtoll(argv[3], nullptr, 10);
  makeEmptyStore(home);

  bench::RawStore store(bench::storeIn(home));
  store.run("BEGIN");
  bench::RawStatement user(store, "INSERT INTO Users (uuid, timestamp) VALUES (?1, '2024-06-15 10:00:00 +0000')");
  user.bind(1, bench::kUser);
  user.runOnce();
  bench::PositionInsert insert(store);
  for (std::int64_t i = 0; i < positions; ++i) insert.insert(i, i >= positions - unsent);
  store.run("COMMIT");
  store.run("PRAGMA wal_checkpoint(TRUNCATE)");
}

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>

#include "store/Locations.h"
#include "store/ObjectStore.h"
#include "support/LogDiary.h"
#include "support/TempDir.h"

namespace tarvo::test {

/// How many messages of the system log begin so.
inline std::size_t logged(std::string_view opening) {
  std::size_t count = 0;
  for (const std::string& line : LogDiary::installed().lines())
    if (line.starts_with(opening)) ++count;
  return count;
}

/// The library's own store and model in a file of a temporary folder, with a clock that the test moves.
class StoreTest : public ::testing::Test {
 protected:
  StoreTest() {
    LogDiary::installed();
    platform::setHomeDirectory(folder.path());
    platform::setDocumentDirectories({folder.path()});
    platform::Clock::install(clock);
  }

  /// Runs in a block of the store's context, as all store operations must.
  void within(const std::function<void(platform::NSManagedObjectContext&)>& block) {
    platform::NSManagedObjectContext& context = store.managedObjectContext();
    context.performAndWait([&] { block(context); });
  }

  std::shared_ptr<Locations> add(platform::NSManagedObjectContext& context, double latitude = 48.5,
                                 std::string_view serviceAction = "loc_changed") {
    const auto time = clock->now() - platform::Seconds(1);
    const platform::CLLocation fix{{latitude, 2.3522}, 35.25, 5, 8, 90, 1.5, time, std::nullopt};
    return Locations::addLocation(fix, "walking", "sls", context, serviceAction);
  }

  void addAndSave(platform::NSManagedObjectContext& context, int count) {
    for (int i = 0; i < count; ++i) add(context);
    EXPECT_FALSE(context.save());
  }

  static std::vector<std::int64_t> indexes(const Locations::List& locations) {
    std::vector<std::int64_t> all;
    for (const auto& location : locations) all.push_back(location->index().value_or(-1));
    return all;
  }

  TempDir folder;
  const std::filesystem::path file = folder.path() / ObjectStore::kFileName;
  std::shared_ptr<platform::ManualClock> clock =
      std::make_shared<platform::ManualClock>(platform::dateSince1970(1488442530.987));
  ObjectStore store;
};

}  // namespace tarvo::test

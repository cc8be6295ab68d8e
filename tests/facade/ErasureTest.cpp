#include <cstring>
#include <fstream>

#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/FileLock.h"
#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

namespace tarvo {
namespace {

namespace fs = std::filesystem;
using platform::UserDefaults;

/// The files below a folder that hold one of the texts, but those of the backend and of the host; all of them without
/// texts. A line each.
std::string filesIn(const fs::path& home, const std::vector<std::string>& texts) {
  std::string found;
  for (const auto& entry : fs::recursive_directory_iterator(home)) {
    const std::string name = entry.path().filename();
    if (!entry.is_regular_file() || name.starts_with("sandbox")) continue;
    const std::string bytes = platform::readFile(entry.path()).value();
    bool holds = texts.empty();
    for (const std::string& text : texts) holds |= bytes.find(text) != bytes.npos || name.find(text) != name.npos;
    if (holds) found += name + "\n";
  }
  return found;
}

/// What is removed stays there as the disk has it.
void linkFiles(const fs::path& home, const fs::path& links) {
  int number = 0;
  for (const auto& entry : fs::recursive_directory_iterator(home))
    if (entry.is_regular_file() && !entry.path().filename().native().starts_with("sandbox"))
      fs::create_hard_link(entry, links / std::to_string(number++));
}

struct Erasure : test::WholeSdk {
  /// Positions, a trip, a place, settings, an identifier, a log file and an upload of one in the journal.
  void fill(Tarvo& tarvo) {
    UserDefaults::standard().set("tarvologlevel", 3);
    UserDefaults::standard().set("mine", "marker");
    fs::create_directories(home.path() / "Documents");
    std::ofstream(home.path() / "Documents" / "TarvoLog_2024-01-01_marker_IOS.txt") << "marker";
    drive(3);
    engine().addNewLastTrip({{{"pasttrip_id", 7}, {"route", platform::Dictionary{{"a", "marker"}}}}});
    engine().addNewPOI({{{"poi_id", 1}, {"zone_geo_json", platform::Dictionary{{"a", "marker"}}}}});
    tarvo.setTags("colour", "marker");
    Trip trip;
    trip.start_name = "marker";
    Tarvo::setLastPrediction(trip);
    waitUntilIdle();
  }
};

TEST_F(Erasure, LeavesNothingOnTheDiskNorInMemoryAndTheNextUserBeginsAtZero) {
  Tarvo tarvo = online(Tarvo::BACKEND_GEOPROFILE);
  fill(tarvo);
  const std::vector<std::string> marks = {"marker", *LocationManager::userUUID(), *NetworkManager::UUID_SECRET_KEY(),
                                          *platform::UIDevice::current().identifierForVendor(), "loc_changed"};
  const auto history = *tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {});
  // Answers that come once everything has been erased: to a batch, to a registration and to a log file.
  for (const char* path : {"positions", "users", "uplog"}) backend.faults().hangNext(path, 1);
  collect(1);
  engine().sendDataInBatchToRemoteWebServer();
  engine().registerUserToRemoteWebServer();
  NetworkManager().sendLogToRemoteWebServer();
  ASSERT_TRUE(backend.faults().waitUntilHanging(3, std::chrono::seconds(20)));
  EXPECT_NE(filesIn(home.path(), marks).find(".jsonl"), std::string::npos);
  EXPECT_EQ(filesIn(home.path(), {">secret<", " secret", "\"secret\"", "a2V5OnNlY3JldA"}), "") << "of the API key";

  const test::TempDir links;
  linkFiles(home.path(), links.path());
  EXPECT_TRUE(tarvo.eraseEverything());
  backend.faults().release();
  waitUntilIdle();
  EXPECT_EQ(filesIn(home.path(), marks), "");
  EXPECT_EQ(filesIn(links.path(), marks), "") << "overwritten";
  const auto after = tarvo.syncStatus();
  EXPECT_TRUE(after.stored + after.unsaved == 0 && after.storeAvailable && history.locations.toVector().empty());
  EXPECT_FALSE(LocationManager::userUUID() || NetworkManager::UUID_SECRET_KEY() || tarvo.getNextTrip());
  EXPECT_TRUE(tarvo.getPointOfInterests().empty() && Tarvo::SET_TAGS_LIST().empty());
  EXPECT_TRUE(Tarvo::LastPrediction().start_name.empty() && Tarvo::ACTIVATE_STATUS() == Tarvo::DEACTIVE_ALL);
  drive(1);
  EXPECT_EQ(tarvo.syncStatus().stored, 0) << "collection has stopped";

  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  clock->advance(platform::Seconds(180));
  drive(2);
  settle();
  EXPECT_TRUE(LocationManager::userUUID() && *LocationManager::userUUID() != marks[1]);
  EXPECT_EQ(tarvo.syncStatus().lastIndex, 1);
}

TEST_F(Erasure, IsFinishedByTheNextProcessWhereverItWasKilled) {
  static int left = 0;
  for (int point = 0, end = -SIGKILL; end != 0; ++point) {
    end = test::inFreshProcess([&] {
      platform::setSystemLogSink([](std::string_view) {});
      Tarvo tarvo;
      activate(tarvo, Tarvo::LOCAL_BACKGROUND);
      fill(tarvo);
      left = point;
      platform::faultHook = [](const char* place) {
        if (std::strncmp(place, "erase:", 6) == 0 && left-- == 0) ::raise(SIGKILL);
      };
      return tarvo.eraseEverything() ? 0 : 1;
    });
    ASSERT_TRUE(end == 0 || end == -SIGKILL) << end;
    const bool isBegun = point > 0;
    EXPECT_EQ(test::inFreshProcess([&] {
                std::string told;
                platform::setSystemLogSink([&](std::string_view line) { told += std::string(line) + "\n"; });
                Tarvo tarvo;
                const bool isErased =
                    filesIn(home.path(), {"marker", "loc_changed"}).empty() && tarvo.syncStatus().stored == 0;
                return isErased == isBegun && !fs::exists(home.path() / "Library" / "erasing") ? 0 : 1;
              }),
              0)
        << "killed at point " << point;
    ASSERT_LT(point, 30);
    EXPECT_TRUE(end != 0 || point > 8) << "each step was tried";
  }
}

TEST_F(Erasure, WaitsForTheNextStartWhileAnotherProcessWrites) {
  Tarvo tarvo;
  platform::FileLock other(home.path() / "Documents" / (std::string(ObjectStore::kFileName) + ".lock"));
  ASSERT_TRUE(other.tryLock().value());
  EXPECT_FALSE(tarvo.eraseEverything());
  EXPECT_EQ(diary.count("Tarvo : not everything is erased: The store is being written by"), 1u);
}

}  // namespace
}  // namespace tarvo

#pragma once

#include <string>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>

#include "store/Locations.h"
#include "store/ObjectStore.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/Users.h"
#include "support/StoreFile.h"
#include "support/TempDir.h"

namespace tarvo::faults {

namespace fs = std::filesystem;

using test::ask;
using test::bytesOf;

/// All that the file's records say; a position that could not be filled in is "--", with the number that it owns.
inline std::string stateOf(const fs::path& file) {
  return ask(file,
             "SELECT ifnull((SELECT group_concat(ifnull(\"index\", _key - 1) || ':' || ifnull(unsent, '-') || "
             "ifnull(sentWithoutACK, '-'), ' ') FROM (SELECT * FROM Locations ORDER BY _key)), '') || ' trips ' || "
             "ifnull((SELECT group_concat(pasttrip_id || ':' || length(route)) FROM PastTrips), '') || ' places ' || "
             "(SELECT count(*) FROM PointOfInterest) || ' users ' || (SELECT count(*) FROM Users)");
}

/// The SDK's store in a folder, and what the SDK does with it. Each step is a transaction; all but `add` may be done
/// again.
struct StoreWork {
  using Step = void (*)(StoreWork&, platform::NSManagedObjectContext&);

  explicit StoreWork(const fs::path& folder) : file(folder / ObjectStore::kFileName) {
    platform::setDocumentDirectories({folder});
    store.persistentStoreCoordinator();
  }
  bool isOpen() { return store.persistentStoreCoordinator()->hasStore(); }
  /// Whether all is in the file.
  bool run(Step step) {
    bool isSaved = false;
    auto& context = store.managedObjectContext();
    context.performAndWait([&] {
      step(*this, context);
      store.saveContext();
      isSaved = !context.hasChanges();
    });
    return isSaved;
  }

  const fs::path file;
  ObjectStore store{{}};
  int unfilled = 0;  ///< positions that had to be left so
};

namespace steps {

using Context = platform::NSManagedObjectContext;

inline void nothing(StoreWork&, Context& context) { (void)context.claim(); }
inline void add(StoreWork& work, Context& context) {
  const platform::CLLocation fix{{48.5, 2.35}, 35, 5, 8, 90, 1.5, platform::dateSince1970(1.7e9), std::nullopt};
  work.unfilled += Locations::addLocation(fix, std::string(700, 'w'), "sls", context, "loc_changed") ? 0 : 1;
}
inline void mark(StoreWork&, Context& context) {
  for (const auto& position : Locations::getUnsentLocations(context))
    Locations::markLocationAsSentWithoutACKWithID(position->objectID(), context);
}
inline void acknowledge(StoreWork&, Context& context) { Locations::markLocationAsSentUntilIndex("4", context, "0"); }
inline void ingestTrip(StoreWork&, Context& context) {
  PastTrips::addLastTrip({{"pasttrip_id", 7}, {"route", platform::Dictionary{{"r", std::string(3000, 'r')}}}}, context);
}
inline void ingestPlaces(StoreWork&, Context& context) {
  PointOfInterest::removePOIs(context);
  // Places are added again and again: not over some that could not be removed.
  if (!PointOfInterest::getPOIs(context).empty()) return;
  for (int place : {1, 2}) PointOfInterest::addPOI({{"poi_id", place}}, context);
}
inline void storeUser(StoreWork&, Context& context) {
  if (Users::getUsers(context).empty()) Users::addUser("u", "t", context);
}
inline void checkpoint(StoreWork&, Context& context) { (void)context.coordinator().checkpoint(); }
/// The oldest positions go, as many as there are more than six.
inline void removeOldest(StoreWork&, Context& context) {
  (void)context.claim();
  auto positions = context.fetch({"Locations", {}, {{"index", true}}});
  for (std::size_t i = 0; positions && i + 6 < positions->size(); ++i) context.deleteObject((*positions)[i]);
}
inline void removeAll(StoreWork&, Context& context) {
  Locations::removeData(context);
  PastTrips::removeData(context);
}

}  // namespace steps

/// What a scenario begins with: nothing, a store that was made, one that was filled and then killed, one of the model's
/// first version.
enum class Start { nothing, made, filled, old };

struct Scenario {
  const char* name;
  Start start;
  bool opensUnderFaults;
  std::vector<StoreWork::Step> steps;
};

inline const Scenario kScenarios[] = {
    {"creation", Start::nothing, true, {steps::nothing, steps::storeUser}},
    {"start", Start::filled, true, {steps::nothing, steps::mark}},
    {"migration", Start::old, true, {steps::nothing, steps::add}},
    {"intake", Start::made, false, std::vector<StoreWork::Step>(6, steps::add)},
    {"uploads", Start::filled, false, {steps::mark, steps::acknowledge, steps::add, steps::mark, steps::acknowledge}},
    {"downloads", Start::filled, false, {steps::ingestTrip, steps::ingestPlaces, steps::storeUser}},
    {"checkpoint", Start::filled, false, {steps::add, steps::checkpoint, steps::add, steps::checkpoint, steps::mark}},
    {"deletion", Start::filled, false, {steps::removeOldest, steps::checkpoint, steps::removeAll}},
};

/// The files that scenarios begin with.
class Starts {
 public:
  Starts() {
    for (const char* name : {"0", "1", "2", "3"}) fs::create_directory(folder_.path() / name);
    { StoreWork(of(Start::made)).run(steps::nothing); }
    ask(of(Start::old) / ObjectStore::kFileName,
        bytesOf(fs::path(__FILE__).parent_path().parent_path() / "store" / "first-version.sql"));
    test::TempDir open;
    StoreWork filled(open.path());
    for (int i = 0; i < 8; ++i) filled.run(steps::add);
    ask(filled.file, "INSERT INTO _metadata VALUES ('Locations.keys', '0 0')");  // as of a large table
    for (const auto step : {steps::acknowledge, steps::ingestTrip, steps::ingestPlaces}) filled.run(step);
    copy(open.path(), of(Start::filled));  // with its write-ahead log, as a kill leaves it
  }
  void copyTo(const fs::path& folder, Start start) const { copy(of(start), folder); }

 private:
  fs::path of(Start start) const { return folder_.path() / std::to_string(static_cast<int>(start)); }
  static void copy(const fs::path& from, const fs::path& to) {
    fs::copy(from, to, fs::copy_options::overwrite_existing | fs::copy_options::recursive);
    fs::remove(to / (std::string(ObjectStore::kFileName) + "-shm"));
  }
  test::TempDir folder_;
};

}  // namespace tarvo::faults

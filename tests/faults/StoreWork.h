#pragma once

#include <string>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>

#include "store/Locations.h"
#include "store/ObjectStore.h"
#include "store/PastTrips.h"
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
             "ifnull((SELECT group_concat(pasttrip_id || ':' || length(route)) FROM PastTrips), '') || ' users ' || "
             "(SELECT count(*) FROM Users)");
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
inline void download(StoreWork&, Context& context) {
  PastTrips::addLastTrip({{"pasttrip_id", 7}, {"route", platform::Dictionary{{"r", std::string(3000, 'r')}}}}, context);
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

/// What a scenario begins with: nothing, a store that was filled and then killed, one of the model's first version.
enum class Start { nothing, filled, old };

struct Scenario {
  const char* name;
  Start start;
  bool opensUnderFaults;
  std::vector<StoreWork::Step> steps;
};

inline const Scenario kScenarios[] = {
    {"creation", Start::nothing, true, {steps::nothing, steps::download}},
    {"start", Start::filled, true, {steps::nothing, steps::mark}},
    {"migration", Start::old, true, {steps::nothing, steps::add}},
    {"intake", Start::nothing, false, std::vector<StoreWork::Step>(6, steps::add)},
    {"uploads", Start::filled, false, {steps::mark, steps::acknowledge, steps::add, steps::mark, steps::acknowledge}},
    {"checkpoint", Start::filled, false, {steps::add, steps::checkpoint, steps::download, steps::checkpoint}},
    {"deletion", Start::filled, false, {steps::removeOldest, steps::checkpoint, steps::removeAll}},
};

/// Brings the files that scenarios begin with.
class Starts {
 public:
  Starts() {
    for (int i = 0; i < 8; ++i) open_.run(steps::add);
    ask(open_.file, "INSERT INTO _metadata VALUES ('Locations.keys', '0 0')");  // as of a large table
    open_.run(steps::acknowledge);
  }
  void copyTo(const fs::path& folder, Start start) const {
    const fs::path file = folder / ObjectStore::kFileName;
    if (start == Start::old) ask(file, bytesOf(fs::path(__FILE__) / "../../store/first-version.sql"));
    if (start != Start::filled) return;
    for (const char* side : {"", "-wal"}) fs::copy(open_.file.native() + side, folder);  // as a kill leaves it
  }

 private:
  const test::TempDir folder_;
  StoreWork open_{folder_.path()};
};

}  // namespace tarvo::faults

#pragma once

#include <optional>
#include <string>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "settings/Settings.h"
#include "store/Locations.h"
#include "store/ObjectStore.h"
#include "store/PastTrips.h"
#include "store/Users.h"
#include "support/LogDiary.h"
#include "support/StoreFile.h"
#include "support/TempDir.h"

namespace tarvo::faults {

namespace fs = std::filesystem;

using platform::concat, test::ask, test::bytesOf;

/// The SDK's store in a folder, and what the SDK does with it. Each step is a transaction; all but `add` may be done
/// again.
struct StoreWork {
  using Context = platform::NSManagedObjectContext;
  using Step = void (*)(StoreWork&, Context&);

  explicit StoreWork(const fs::path& folder) : file(folder / ObjectStore::kFileName) {
    platform::setDocumentDirectories({folder});
    store.persistentStoreCoordinator();
  }
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
  /// All that a file's records say; a position that could not be filled in is "--", with the number that it owns.
  static std::string stateOf(const fs::path& file) {
    return ask(file,
               "SELECT ifnull((SELECT group_concat(ifnull(\"index\", _key - 1) || ':' || ifnull(unsent, '-') || "
               "ifnull(sentWithoutACK, '-'), ' ') FROM (SELECT * FROM Locations ORDER BY _key)), '') || ' trips ' || "
               "ifnull((SELECT group_concat(pasttrip_id || ':' || length(route)) FROM PastTrips), '') || ' users ' || "
               "(SELECT count(*) FROM Users)");
  }

  static void nothing(StoreWork&, Context& context) { (void)context.claim(); }
  static void add(StoreWork& work, Context& context) {
    const platform::CLLocation fix{{48.5, 2.35}, 35, 5, 8, 90, 1.5, platform::dateSince1970(1.7e9), std::nullopt};
    if (!Locations::addLocation(fix, std::string(700, 'w'), "sls", context, "loc_changed")) ++work.unfilled;
  }
  static void mark(StoreWork&, Context& context) {
    for (const auto& position : Locations::getUnsentLocations(context))
      Locations::markLocationAsSentWithoutACKWithID(position->objectID(), context);
  }
  static void acknowledge(StoreWork&, Context& context) { Locations::markLocationAsSentUntilIndex("4", context, "0"); }
  static void download(StoreWork&, Context& context) {
    PastTrips::addLastTrip({{"pasttrip_id", 7}, {"route", platform::Dictionary{{"r", std::string(3000, 'r')}}}},
                           context);
    if (Users::getUsers(context).empty()) Users::addUser("u", "t", context);
  }
  static void checkpoint(StoreWork&, Context& context) { (void)context.coordinator().checkpoint(); }
  /// The oldest positions go, as many as there are more than six.
  static void removeOldest(StoreWork&, Context& context) {
    (void)context.claim();
    auto positions = context.fetch({"Locations", {}, {{"index", true}}});
    for (std::size_t i = 0; positions && i + 6 < positions->size(); ++i) context.deleteObject((*positions)[i]);
  }
  static void removeAll(StoreWork&, Context& context) {
    Locations::removeData(context), PastTrips::removeData(context);
  }

  const fs::path file;
  ObjectStore store{{}};
  int unfilled = 0;  ///< positions that had to be left so
};

/// What is done with a store in a row, and what that begins with: nothing, a store that was filled and then killed, one
/// of the model's first version.
struct Scenario {
  const char* name;
  enum Start { nothing, filled, old } start;
  bool opensUnderFaults;
  std::vector<StoreWork::Step> steps;

  void begin(const fs::path& folder) const {
    static const test::TempDir made;
    static const auto* open = [] {
      auto* work = new StoreWork(made.path());  // never ends
      for (int i = 0; i < 8; ++i) work->run(StoreWork::add);
      ask(work->file, "INSERT INTO _metadata VALUES ('Locations.keys', '0 0')");  // as of a large table
      work->run(StoreWork::acknowledge);
      return work;
    }();
    if (start == old)
      ask(folder / ObjectStore::kFileName, bytesOf(fs::path(__FILE__) / "../../store/first-version.sql"));
    for (const char* side : {"", "-wal"})
      if (start == filled) fs::copy(open->file.native() + side, folder);
  }
};

using Work = StoreWork;

inline const Scenario kScenarios[] = {
    {"creation", Scenario::nothing, true, {Work::nothing, Work::download}},
    {"start", Scenario::filled, true, {Work::nothing, Work::mark}},
    {"migration", Scenario::old, true, {Work::nothing, Work::add}},
    {"intake", Scenario::nothing, false, std::vector<Work::Step>(6, Work::add)},
    {"uploads", Scenario::filled, false, {Work::mark, Work::acknowledge, Work::add, Work::mark, Work::acknowledge}},
    {"checkpoint", Scenario::filled, false, {Work::add, Work::checkpoint, Work::download, Work::checkpoint}},
    {"deletion", Scenario::filled, false, {Work::removeOldest, Work::checkpoint, Work::removeAll}},
};

/// A process that works with the files beside the store.
struct PlainWork {
  explicit PlainWork(const fs::path& home) : transfers(home / "Library/Transfers", "j") {
    platform::setHomeDirectory(home);
    platform::setDocumentDirectories({home / "Documents"});
    platform::Clock::install(std::make_shared<platform::ManualClock>(platform::dateSince1970(1.7e9)));
    Settings::shared().userUUID.set("u");
    platform::UserDefaults::standard().set("tarvologlevel", 6);
  }

  platform::TransferJournal transfers;
  /// Without a journal from its start, a process goes on without it, and says so.
  const bool journals = test::LogDiary::installed().count("transfers are not journalled") == 0;
};

/// One of them: what each use of a number does with it, and whether bytes hold what that has left.
struct PlainFile {
  const char* path;  ///< in the home
  void (*use)(PlainWork& work, int number);
  bool (*holds)(const std::string& bytes, int number);
};

constexpr std::int64_t kOver = 99;  ///< an upload that does not last

inline const PlainFile kPlainFiles[] = {
    {"Library/identifierForVendor", [](PlainWork&, int) { (void)platform::UIDevice::current().identifierForVendor(); },
     [](const std::string& bytes, int) { return bytes.size() == 36; }},
    {"Library/Preferences/defaults.plist",
     [](PlainWork&, int number) { platform::UserDefaults::standard().set("number", number); },
     [](const std::string& bytes, int number) {
       auto list = platform::parsePropertyList(bytes);
       return list && list->asDictionary() && platform::findInteger(*list->asDictionary(), "number") == number;
     }},
    {"Library/Transfers/j.jsonl",
     [](PlainWork& work, int number) {
       work.transfers.putResumed({kOver, {"http://a/" + std::string(70'000, 'a'), "POST"}, "/f"});
       work.transfers.remove(kOver);  // so much is over that it is written anew
       work.transfers.putResumed({number, {"http://a/", "POST"}, "/f"});
       work.transfers.flush();
     },
     [](const std::string& bytes, int number) {
       bool holds = true;
       for (int each = std::min(number, 3); each <= number; ++each)
         holds &= bytes.find(concat("\"identifier\":", each, ",")) != std::string::npos;
       return holds;
     }},
    {"Documents/TarvoLog_2023-11-14_u_IOS.txt",
     [](PlainWork&, int number) {
       Log::error("use ", number);
       (void)platform::WorkInFlight::waitUntilIdle(platform::Seconds(30));
     },
     [](const std::string& bytes, int number) { return bytes.ends_with(concat("[ERROR]:use ", number, "\n")); }},
};

inline const PlainFile *const kIdentifier = &kPlainFiles[0], *const kSettings = &kPlainFiles[1],
                              *const kJournal = &kPlainFiles[2];

inline void use(PlainWork& work, int number) {
  for (const PlainFile& file : kPlainFiles) file.use(work, number);
}

}  // namespace tarvo::faults

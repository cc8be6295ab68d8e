/// The disk fails: the Nth call that SQLite makes, of each kind, once and for ever.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "faults/Driver.h"
#include "faults/FaultyCalls.h"
#include "faults/StoreWork.h"
#include "log/Log.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "settings/Settings.h"
#include "support/FaultyDisk.h"
#include "support/FreshProcess.h"
#include "support/LogDiary.h"

namespace tarvo::faults {
namespace {

using platform::concat;
using platform::FaultyDisk;

struct Fault {
  const char* name;
  FaultyDisk::Call call;
  std::vector<int> statuses;
};

const Fault kFaults[] = {
    {"open", FaultyDisk::open, {SQLITE_CANTOPEN, SQLITE_IOERR, SQLITE_READONLY, SQLITE_FULL}},
    {"read", FaultyDisk::read, {SQLITE_IOERR_READ, SQLITE_CORRUPT}},
    {"write", FaultyDisk::write, {SQLITE_FULL, SQLITE_IOERR_WRITE, SQLITE_READONLY}},
    {"sync", FaultyDisk::sync, {SQLITE_IOERR_FSYNC, SQLITE_FULL}},
    {"truncate", FaultyDisk::truncate, {SQLITE_IOERR_TRUNCATE}},
    {"lock", FaultyDisk::lock, {SQLITE_BUSY, SQLITE_IOERR_LOCK}},
    {"map", FaultyDisk::map, {SQLITE_IOERR_SHMMAP, SQLITE_CANTOPEN, SQLITE_FULL}},
    {"mapLock", FaultyDisk::mapLock, {SQLITE_BUSY, SQLITE_IOERR_SHMLOCK}},
    {"remove", FaultyDisk::remove, {SQLITE_IOERR_DELETE, SQLITE_READONLY}},
    {"access", FaultyDisk::access, {SQLITE_IOERR_ACCESS}},
};

/// What is being tried, for the line of a crash or a hang.
char trying[200];

void tellTheEnd(int signal) {
  static_cast<void>(!::write(STDERR_FILENO, trying, std::strlen(trying)));
  static_cast<void>(!::write(STDERR_FILENO, ": crash or hang\n", 16));
  ::_exit(128 + signal);
}

class Stores {
 public:
  explicit Stores(Driver& driver) : driver_(driver) {
    for (const Scenario& scenario : kScenarios) {
      const test::TempDir folder;
      starts_.copyTo(folder.path(), scenario.start);
      StoreWork work(folder.path());
      for (const auto step : scenario.steps) expect(work.run(step), "not saved on a sound disk");
      untouched_.push_back(stateOf(work.file));
    }
  }

  /// Answers whether the fault has struck.
  bool survives(const Scenario& scenario, const Fault& fault, int status, int nth, bool forEver) {
    std::snprintf(trying, sizeof trying, "%s, %s number %d gives %d %s", scenario.name, fault.name, nth, status,
                  forEver ? "from then on" : "once");
    ::alarm(60);
    log_.clear();
    const test::TempDir folder;
    starts_.copyTo(folder.path(), scenario.start);
    const std::uint64_t node = nodeOf(folder.path());
    std::optional<StoreWork> work;
    if (!scenario.opensUnderFaults) work.emplace(folder.path());
    FaultyDisk::fail(fault.call, status, nth, forEver);
    if (scenario.opensUnderFaults) work.emplace(folder.path());
    const bool wasOpen = work->store.persistentStoreCoordinator()->store() != nullptr;
    for (const auto step : scenario.steps) runUnderFault(*work, step);
    const bool struck = FaultyDisk::failures() > 0;
    FaultyDisk::heal();
    // By design a store that could not be opened is not tried again: the next process has it.
    if (!wasOpen) {
      expect(log_.count("Code=9999") == 1, "nothing said of a store that did not open");
      work.reset();
      work.emplace(folder.path());
    }
    for (const auto step : scenario.steps)
      if (!wasOpen || step != steps::add) expect(work->run(step), "not saved though the disk is back");
    expect(work->run(steps::nothing), "still not saved though the disk is back");
    const int unfilled = work->unfilled;
    const fs::path file = work->file;
    work.reset();
    const std::string kept = stateOf(file);
    std::string expected = untouched_[static_cast<std::size_t>(&scenario - kScenarios)];
    int seen = 0;
    for (std::size_t at = 0; (at = kept.find("--", at)) < expected.size(); ++at, ++seen) expected.replace(at, 2, "--");
    expect(kept == expected && seen == unfilled, concat("kept is not ", expected, " but ", kept));
    expect(ask(file, "PRAGMA integrity_check") == "ok", "damaged");
    expect(node == 0 || node == nodeOf(folder.path()), "another file has taken the store's place");
    return struck;
  }

 private:
  void expect(bool holds, const std::string& otherwise) { driver_.expect(holds, concat(trying, ": ", otherwise)); }

  void runUnderFault(StoreWork& work, StoreWork::Step step) {
    const std::size_t before = log_.count("rror");
    expect(work.run(step) || log_.count("rror") > before, "not saved, and nothing said");
    auto& context = work.store.managedObjectContext();
    context.performAndWait([&] {
      for (const auto& position : Locations::getUnsentLocations(context))
        expect(ask(work.file, concat("SELECT count(*) FROM Locations WHERE \"index\" = ", position->index())) == "1",
               "what is posted is not in the file");
    });
  }

  static std::uint64_t nodeOf(const fs::path& folder) {
    struct stat status {};
    return ::stat((folder / ObjectStore::kFileName).c_str(), &status) == 0 ? status.st_ino : 0;
  }

  Driver& driver_;
  test::LogDiary& log_ = test::LogDiary::installed();
  const Starts starts_;
  std::vector<std::string> untouched_;
};

/// A file beside the store, and whether its bytes hold what a use of that number has left.
struct PlainFile {
  const char* name;
  const char* path;  ///< in the home
  bool (*holds)(const std::string& bytes, int number);
};

const PlainFile kPlainFiles[] = {
    {"identifier", "Library/identifierForVendor", [](const std::string& bytes, int) { return bytes.size() == 36; }},
    {"settings", "Library/Preferences/defaults.plist",
     [](const std::string& bytes, int number) {
       auto list = platform::parsePropertyList(bytes);
       return list && list->asDictionary() && platform::findInteger(*list->asDictionary(), "number") == number;
     }},
    {"journal", "Library/Transfers/j.jsonl",
     [](const std::string& bytes, int number) {
       bool holds = true;
       for (int each = std::min(number, 3); each <= number; ++each)
         holds &= bytes.find(concat("\"identifier\":", each, ",")) != std::string::npos;
       return holds;
     }},
    {"log", "Documents/TarvoLog_2023-11-14_u_IOS.txt",
     [](const std::string& bytes, int number) { return bytes.ends_with(concat("[ERROR]:use ", number, "\n")); }},
};

const PlainFile *const kSettings = &kPlainFiles[1], *const kJournal = &kPlainFiles[2];

/// A process that works with all of them.
struct PlainWork {
  explicit PlainWork(const fs::path& home) : transfers(home / "Library" / "Transfers", "j") {
    platform::setHomeDirectory(home);
    platform::Clock::install(std::make_shared<platform::ManualClock>(platform::dateSince1970(1.7e9)));
    Settings::shared().userUUID.set("u");
  }
  void use(int number) {
    auto& defaults = platform::UserDefaults::standard();
    defaults.set("tarvologlevel", 6);
    defaults.set("number", number);
    (void)platform::UIDevice::current().identifierForVendor();
    Log::error("use ", number);
    transfers.putResumed({number, {"http://a/", "POST"}, "/f"});
    transfers.flush();
    (void)platform::WorkInFlight::waitUntilIdle(platform::Seconds(30));
  }

  platform::TransferJournal transfers;
  /// Without a journal from its start, a process goes on without it, and says so.
  const bool journals = test::LogDiary::installed().count("transfers are not journalled") == 0;
};

/// The files beside the store: each damaged before a process starts or under it, and each call for them failed.
class PlainFiles {
 public:
  explicit PlainFiles(Driver& driver) : driver_(driver) {
    const auto work = [&] {
      PlainWork first(made_);
      for (const int number : {0, 1}) first.use(number);
      return 0;
    };
    driver_.expect(test::inFreshProcess(work) == 0, "a sound disk");
  }

  void tryAll(std::int64_t longest) {
    for (const PlainFile& file : kPlainFiles) {
      const auto size = static_cast<std::int64_t>(fs::file_size(made_ / file.path));
      for (const bool isRunning : {false, true}) {
        const auto damaged = [&](const std::string& how, const auto& damage) {
          const auto strike = [&](const fs::path& home) { damage(home / file.path); };
          survives(concat(file.name, isRunning ? " under a process, " : ", ", how), &file, isRunning, strike);
        };
        for (std::int64_t at = 0; at < size; at += 1 + driver_.upTo(longest * size / 80))
          damaged(concat("cut at ", at), [&](const fs::path& path) { fs::resize_file(path, at); });
        damaged("removed", [](const fs::path& path) { fs::remove(path); });
        damaged("made a folder", [](const fs::path& path) { fs::remove(path), fs::create_directory(path); });
      }
    }
    for (const int error : {ENOSPC, EIO, EROFS})
      for (const bool forEver : {true, false}) {
        std::int64_t nth = 0;
        const auto strike = [&](const fs::path& home) { FaultyCalls::fail(home, nth, error, forEver); };
        while (survives(concat("call ", nth, " gives ", error, forEver ? " from then on" : ""), nullptr, false, strike))
          nth += 1 + driver_.upTo(longest / 4);
      }
  }

  std::int64_t done = 0;

 private:
  /// The files of a home that do not hold what a use has left in them.
  static std::string wrongAt(int number, const fs::path& home, const PlainWork& work, std::string_view except) {
    std::string wrong;
    for (const PlainFile& file : kPlainFiles)
      if (file.name != except && (work.journals || &file != kJournal) && !file.holds(bytesOf(home / file.path), number))
        wrong += concat(" ", file.name, " at use ", number);
    return wrong;
  }

  /// Answers whether something was struck: that file, or without one the calls for any.
  bool survives(const std::string& what, const PlainFile* file, bool isRunning,
                const std::function<void(const fs::path& home)>& strike) {
    std::snprintf(trying, sizeof trying, "%s", what.c_str());
    const test::TempDir folder;
    const fs::path& home = folder.path();
    fs::copy(made_, home, fs::copy_options::recursive);
    constexpr int kUntouched = 9;
    const int end = test::inFreshProcess([&] {
      ::alarm(60);
      const auto identifier = [](const fs::path& of) { return bytesOf(of / kPlainFiles->path); };
      if (!isRunning) strike(home);
      PlainWork work(home);
      work.use(2);
      if (isRunning) strike(home);
      work.use(3);
      FaultyCalls::folder.clear();
      if (!file && FaultyCalls::failed == 0) return kUntouched;
      std::string wrong = file ? wrongAt(3, home, work, file->name) : "";
      if (!file && !platform::parsePropertyList(bytesOf(home / kSettings->path))) wrong = " half settings";
      // What cannot be read is not replaced.
      if (file && (file == kSettings || fs::is_directory(home / file->path))) fs::remove(home / file->path);
      for (const int number : {4, 5}) work.use(number);
      // A process does not look again for the identifier that it has read.
      const bool isKnown = isRunning && file == kPlainFiles;
      wrong += wrongAt(5, home, work, isKnown ? kPlainFiles->name : "");
      if (file != kPlainFiles && identifier(home) != identifier(made_)) wrong += " another identifier";
      if (!wrong.empty()) std::cerr << trying << ":" << wrong << "\n";
      return wrong.empty() ? 0 : 1;
    });
    driver_.expect(end == 0 || end == kUntouched, concat(trying, ": ended with ", end));
    return ++done, end != kUntouched;
  }

  Driver& driver_;
  const test::TempDir folder_;
  const fs::path made_ = folder_.path() / "made";  ///< a home in which all of them have been used
};

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  for (const int end : {SIGSEGV, SIGBUS, SIGABRT, SIGALRM}) ::signal(end, tellTheEnd);
  Driver driver("disk", count, arguments, 3000);
  test::LogDiary::installed();
  // All of them are about so many; fewer go in longer steps.
  const std::int64_t longest = std::max<std::int64_t>(2 * 14'000 / driver.runs - 2, 0);
  PlainFiles files(driver);
  files.tryAll(longest);
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  FaultyDisk::install();
  Stores stores(driver);
  std::set<const Fault*> struck;
  for (const Scenario& scenario : kScenarios)
    for (const Fault& fault : kFaults)
      for (const int status : fault.statuses)
        for (const bool forEver : {true, false})
          for (int nth = 0; stores.survives(scenario, fault, status, nth, forEver); ++files.done, struck.insert(&fault))
            nth += 1 + static_cast<int>(driver.upTo(longest));
  driver.expect(struck.size() == std::size(kFaults), "a kind of fault never struck");
  return driver.end(files.done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

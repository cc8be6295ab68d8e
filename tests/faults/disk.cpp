/// The disk fails: the Nth call that SQLite makes, of each kind, once and for ever.

#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "faults/Driver.h"
#include "faults/FaultyCalls.h"
#include "faults/PlainWork.h"
#include "support/FaultyDisk.h"
#include "support/FreshProcess.h"

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

std::string trying;

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
    trying = concat(scenario.name, ", ", fault.name, " ", nth, " gives ", status, forEver ? " from then on" : " once");
    ::alarm(60);
    log_.clear();
    const test::TempDir folder;
    starts_.copyTo(folder.path(), scenario.start);
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

  Driver& driver_;
  test::LogDiary& log_ = test::LogDiary::installed();
  const Starts starts_;
  std::vector<std::string> untouched_;
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
          trying = concat(file.name, isRunning ? " under a process, " : ", ", how);
          survives(&file, isRunning, [&](const fs::path& home) { damage(home / file.path); });
        };
        for (std::int64_t at = 0; at < size; at += 1 + driver_.upTo(longest * size / 80))
          damaged(concat("cut at ", at), [&](const fs::path& path) { fs::resize_file(path, at); });
        damaged("removed", [](const fs::path& path) { fs::remove(path); });
        damaged("made a folder", [](const fs::path& path) { fs::remove(path), fs::create_directory(path); });
      }
    }
    for (const int error : {ENOSPC, EIO, EROFS})
      for (const bool forEver : {true, false})
        for (std::int64_t nth = 0;; nth += 1 + driver_.upTo(longest / 4)) {
          trying = concat("call ", nth, " gives ", error, forEver ? " from then on" : "");
          const auto strike = [&](const fs::path& home) { FaultyCalls::fail(home, nth, error, forEver); };
          if (!survives(nullptr, false, strike)) break;
        }
  }

  std::int64_t done = 0;

 private:
  /// The files of a home that do not hold what a use has left in them.
  static std::string wrongAt(int number, const fs::path& home, const PlainWork& work, const PlainFile* except) {
    std::string wrong;
    for (const PlainFile& file : kPlainFiles)
      if (&file != except && (work.journals || &file != kJournal) && !file.holds(bytesOf(home / file.path), number))
        wrong += concat(" ", file.name, " at use ", number);
    return wrong;
  }
  /// Of what was written while calls failed.
  static std::string halfWritten(const fs::path& home) {
    std::string wrong = platform::parsePropertyList(bytesOf(home / kSettings->path)) ? "" : " half settings";
    const std::string journal = bytesOf(home / kJournal->path);
    // The call that takes back half a line may fail as well.
    if (!FaultyCalls::forEver && !journal.ends_with("}\n")) wrong += " half a line in the journal";
    return wrong;
  }

  /// Answers whether something was struck: that file, or without one the calls for any.
  bool survives(const PlainFile* file, bool isRunning, const std::function<void(const fs::path& home)>& strike) {
    const test::TempDir folder;
    const fs::path& home = folder.path();
    fs::copy(made_, home, fs::copy_options::recursive);
    constexpr int kUntouched = 9;
    const int end = test::inFreshProcess([&] {
      ::alarm(60);
      if (!isRunning) strike(home);
      PlainWork work(home);
      work.use(2);
      if (isRunning) strike(home);
      work.use(3);
      FaultyCalls::folder.clear();
      if (!file && FaultyCalls::failed == 0) return kUntouched;
      std::string wrong = file ? wrongAt(3, home, work, file) : halfWritten(home);
      // What cannot be read is not replaced.
      if (file && (file == kSettings || fs::is_directory(home / file->path))) fs::remove(home / file->path);
      for (const int number : {4, 5}) work.use(number);
      // A process does not look again for the identifier that it has read.
      wrong += wrongAt(5, home, work, isRunning && file == kIdentifier ? kIdentifier : nullptr);
      if (file != kIdentifier && bytesOf(home / kIdentifier->path) != bytesOf(made_ / kIdentifier->path))
        wrong += " another identifier";
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

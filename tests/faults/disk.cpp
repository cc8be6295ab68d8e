/// The disk fails: the Nth call for each file, of each kind, once and for ever; or somebody damages a file.

#include <unistd.h>

#include "faults/Driver.h"
#include "faults/FaultyCalls.h"
#include "faults/StoreWork.h"
#include "support/FaultyDisk.h"
#include "support/FreshProcess.h"

namespace tarvo::faults {
namespace {

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

class Disks {
 public:
  /// Of about 14,000 faults as many are left out as make fewer runs: at most so many behind each.
  explicit Disks(Driver& driver) : longest_(std::max<std::int64_t>(2 * 14'000 / driver.runs - 2, 0)), driver_(driver) {}

  /// Each call that SQLite makes is failed.
  void tryStores() {
    for (const Scenario& scenario : kScenarios) {
      const test::TempDir folder;
      scenario.begin(folder.path());
      StoreWork sound(folder.path());
      for (const auto step : scenario.steps) driver_.expect(sound.run(step), "not saved on a sound disk");
      const std::string untouched = StoreWork::stateOf(sound.file);
      for (const Fault& fault : kFaults)
        for (const int status : fault.statuses)
          for (const bool forEver : {true, false})
            for (std::int64_t nth = 0;; nth += 1 + driver_.upTo(longest_), ++done) {
              trying_ =
                  concat(scenario.name, ", ", fault.name, " ", nth, " gives ", status, forEver ? " for ever" : "");
              const auto fail = [&] { FaultyDisk::fail(fault.call, status, static_cast<int>(nth), forEver); };
              if (!survives(scenario, fail, untouched)) break;
            }
    }
  }

  /// The files beside the store: each damaged before a process starts or under it, and each call for them failed.
  void tryPlainFiles() {
    const int end = test::inFreshProcess([&] {
      PlainWork first(made_);
      return use(first, 0), use(first, 1), 0;
    });
    driver_.expect(end == 0, "a sound disk");
    for (const PlainFile& file : kPlainFiles) {
      const auto size = static_cast<std::int64_t>(fs::file_size(made_ / file.path));
      for (const bool isRunning : {false, true}) {
        const auto damaged = [&](const std::string& how, const auto& damage) {
          trying_ = concat(file.path, isRunning ? " under a process " : " ", how);
          survives(&file, isRunning, [&](const fs::path& home) { damage(home / file.path); });
        };
        for (std::int64_t at = 0; at < size; at += 1 + driver_.upTo(longest_ * size / 80))
          damaged(concat("cut at ", at), [&](const fs::path& path) { fs::resize_file(path, at); });
        damaged("removed", [](const fs::path& path) { fs::remove(path); });
        damaged("made a folder", [](const fs::path& path) { fs::remove(path), fs::create_directory(path); });
      }
    }
    for (const int error : {ENOSPC, EIO, EROFS})
      for (const bool forEver : {true, false})
        for (std::int64_t nth = 0;; nth += 1 + driver_.upTo(longest_ / 4)) {
          trying_ = concat("call ", nth, " gives ", error, forEver ? " for ever" : "");
          FaultyCalls::left = nth, FaultyCalls::error = error, FaultyCalls::forEver = forEver;
          if (!survives(nullptr, false, [](const fs::path& home) { FaultyCalls::folder = home; })) break;
        }
  }

  std::int64_t done = 0;

 private:
  void expect(bool holds, const std::string& otherwise) { driver_.expect(holds, concat(trying_, ": ", otherwise)); }
  /// Answers whether the fault has struck.
  bool survives(const Scenario& scenario, const std::function<void()>& fail, std::string expected) {
    ::alarm(60);
    log_.clear();
    const test::TempDir folder;
    scenario.begin(folder.path());
    std::optional<StoreWork> work;
    if (!scenario.opensUnderFaults) work.emplace(folder.path());
    fail();
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
      if (!wasOpen || step != StoreWork::add) expect(work->run(step), "not saved though the disk is back");
    expect(work->run(StoreWork::nothing), "still not saved though the disk is back");
    const int unfilled = work->unfilled;
    work.reset();
    const fs::path file = folder.path() / ObjectStore::kFileName;
    const std::string kept = StoreWork::stateOf(file);
    int seen = 0;
    for (std::size_t at = 0; (at = kept.find("--", at)) < expected.size(); ++at, ++seen) expected.replace(at, 2, "--");
    expect(kept == expected && seen == unfilled, concat("kept is not ", expected, " but ", kept));
    expect(ask(file, "PRAGMA integrity_check") == "ok", "damaged");
    return struck;
  }

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
      use(work, 2);
      if (isRunning) strike(home);
      use(work, 3);
      FaultyCalls::folder.clear();
      if (!file && FaultyCalls::failed == 0) return kUntouched;
      std::string wrong;
      if (!file && !platform::parsePropertyList(bytesOf(home / kSettings->path))) wrong = " half settings";
      // The call that takes back half a line may fail as well.
      const bool hasHalf = !file && !FaultyCalls::forEver && !bytesOf(home / kJournal->path).ends_with("}\n");
      if (hasHalf) wrong += " half a line in the journal";
      // What cannot be read is not replaced.
      if (file && (file == kSettings || fs::is_directory(home / file->path))) fs::remove(home / file->path);
      use(work, 4), use(work, 5);
      for (const PlainFile& other : kPlainFiles) {
        // A process does not look again for the identifier that it has read, nor for a journal.
        const bool isLost = &other == kJournal ? !work.journals : isRunning && file == kIdentifier && &other == file;
        if (!isLost && !other.holds(bytesOf(home / other.path), 5)) wrong += concat(" ", other.path);
      }
      if (file != kIdentifier && bytesOf(home / kIdentifier->path) != bytesOf(made_ / kIdentifier->path))
        wrong += " another identifier";
      if (!wrong.empty()) std::cerr << trying_ << ":" << wrong << "\n";
      return wrong.empty() ? 0 : 1;
    });
    expect(end == 0 || end == kUntouched, concat("ended with ", end));
    return ++done, end != kUntouched;
  }

  const std::int64_t longest_;
  Driver& driver_;
  test::LogDiary& log_ = test::LogDiary::installed();
  std::string trying_;
  const test::TempDir folder_;
  const fs::path made_ = folder_.path() / "made";  ///< a home in which all files beside the store have been used
};

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  Driver driver("disk", count, arguments, 3000);
  Disks disks(driver);
  disks.tryPlainFiles();
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  FaultyDisk::install();
  disks.tryStores();
  return driver.end(disks.done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

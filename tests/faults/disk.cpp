/// The disk fails: the Nth call that SQLite makes, of each kind, once and for ever.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "faults/Driver.h"
#include "faults/StoreWork.h"
#include "platform/foundation/Text.h"
#include "support/FaultyDisk.h"
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
  explicit Stores(Driver& driver) : driver_(driver), log_(test::LogDiary::installed()) {
    for (const Scenario& scenario : scenarios()) {
      const test::TempDir folder;
      starts_.copyTo(folder.path(), scenario.start);
      StoreWork work(folder.path());
      for (const auto step : scenario.steps) expect(work.run(step), "not saved on a sound disk");
      untouched_.push_back(stateOf(work.file));
    }
  }

  /// Answers whether the fault has struck.
  bool survives(const Scenario& scenario, const Fault& fault, int status, std::int64_t nth, bool forEver) {
    std::snprintf(trying, sizeof trying, "%s, %s number %d gives %d %s", scenario.name, fault.name,
                  static_cast<int>(nth), status, forEver ? "from then on" : "once");
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
    std::string expected = untouched_[static_cast<std::size_t>(&scenario - scenarios().data())];
    int seen = 0;
    for (std::size_t at = 0; (at = kept.find("--", at)) < expected.size(); ++at, ++seen) expected.replace(at, 2, "--");
    expect(kept == expected && seen == unfilled, concat("kept is not ", expected, " but ", kept));
    expect(ask(file, "PRAGMA integrity_check") == "ok", "damaged: " + ask(file, "PRAGMA integrity_check"));
    expect(node == 0 || node == nodeOf(folder.path()), "another file has taken the store's place");
    return struck;
  }

 private:
  void expect(bool holds, const std::string& otherwise) { driver_.expect(holds, concat(trying, ": ", otherwise)); }

  void runUnderFault(StoreWork& work, StoreWork::Step step) {
    const std::size_t before = log_.count("rror");
    const bool isSaved = work.run(step);
    expect(isSaved || log_.count("rror") > before, "not saved, and nothing said");
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
  test::LogDiary& log_;
  const Starts starts_;
  std::vector<std::string> untouched_;
};

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  for (const int end : {SIGSEGV, SIGBUS, SIGABRT, SIGALRM}) ::signal(end, tellTheEnd);
  Driver driver("disk", count, arguments, 2000);
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  FaultyDisk::install();
  Stores stores(driver);
  // All of them are about so many; fewer go in longer steps.
  const std::int64_t longest = std::max<std::int64_t>(2 * 14'000 / driver.runs - 2, 0);
  std::int64_t done = 0;
  for (const Scenario& scenario : scenarios())
    for (const Fault& fault : kFaults)
      for (const int status : fault.statuses)
        for (const bool forEver : {true, false})
          for (std::int64_t nth = 0; stores.survives(scenario, fault, status, nth, forEver); ++done)
            nth += 1 + driver.upTo(longest);
  return driver.end(done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

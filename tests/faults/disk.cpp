/// The disk fails: the Nth call that SQLite makes, of each kind, once and for ever.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

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

/// The files beside the store: each damaged before a process starts or under it, and each call for them failed.
class PlainFiles {
 public:
  explicit PlainFiles(Driver& driver) : driver_(driver) { test::LogDiary::installed(); }

  std::int64_t tryAll() {
    std::int64_t done = 0;
    for (const File file : {settings, identifier, journal, log}) {
      const fs::path whole = pathOf(made(), file);
      const auto size = static_cast<std::int64_t>(fs::file_size(whole));
      const std::int64_t step = driver_.runs < 10'000 ? 1 + size / 40 : 1;
      for (std::int64_t length = 0; length < size; length += 1 + driver_.upTo(2 * step - 2), ++done)
        for (const bool running : {false, true})
          survives(file, concat("cut at ", length), running,
                   [&](const fs::path& path) { fs::resize_file(path, length); });
      const std::pair<const char*, void (*)(const fs::path&)> damages[] = {
          {"removed", [](const fs::path& path) { fs::remove(path); }},
          {"garbage", [](const fs::path& path) { std::ofstream(path) << std::string(3000, '\xff'); }},
          {"a folder", [](const fs::path& path) { fs::remove(path), fs::create_directory(path); }},
          {"a pipe", [](const fs::path& path) { fs::remove(path), ::mkfifo(path.c_str(), 0600); }},
      };
      for (const auto& [name, damage] : damages)
        for (const bool running : {false, true}) survives(file, name, running, damage), ++done;
    }
    for (const int error : {ENOSPC, EIO, EROFS, EMFILE})
      for (const bool forEver : {true, false})
        for (std::int64_t nth = 0; failsAt(nth, error, forEver); ++done)
          nth += 1 + (driver_.runs < 10'000 ? driver_.upTo(2) : 0);
    return done;
  }

 private:
  enum File { settings, identifier, journal, log, none };
  static constexpr const char* kJournal = "j";

  static fs::path pathOf(const fs::path& home, File file) {
    const fs::path paths[] = {"Library/Preferences/defaults.plist", "Library/identifierForVendor",
                              "Library/Transfers/j.jsonl", "Documents"};
    if (file != log) return home / paths[file];
    for (const auto& entry : fs::directory_iterator(home / "Documents")) return entry.path();
    return home / "Documents" / "none";
  }

  /// A process that works with all four; its uses are told apart by their numbers.
  struct Process {
    explicit Process(const fs::path& home) : transfers(home / "Library" / "Transfers", kJournal) {
      platform::setHomeDirectory(home);
      platform::Clock::install(std::make_shared<platform::ManualClock>(platform::dateSince1970(1.7e9)));
      Settings::shared().userUUID.set("u");
    }
    void use(int number) {
      auto& defaults = platform::UserDefaults::standard();
      defaults.set("tarvologlevel", 6);
      defaults.set("number", number);
      uuid = platform::UIDevice::current().identifierForVendor();
      Log::error("use ", number);
      transfers.putResumed({number, {"http://a/", "POST"}, "/f"});
      transfers.flush();
      (void)platform::WorkInFlight::waitUntilIdle(platform::Seconds(30));
    }
    platform::TransferJournal transfers;
    /// Without a journal from its start, a process goes on without it, and says so.
    const bool journals = test::LogDiary::installed().count("transfers are not journalled") == 0;
    std::optional<std::string> uuid;
  };

  /// A home in which all four have been used once.
  const fs::path& made() {
    if (made_.empty()) {
      made_ = folder_.path() / "made";
      const int end = test::inFreshProcess([&] {
        Process first(made_);
        first.use(0);
        first.use(1);
        return 0;
      });
      driver_.expect(end == 0, concat("a sound disk: ", end, whatIsWrong(made_, 1, {}, none)));
    }
    return made_;
  }

  /// What one finds of the latest use in the files of a home; empty if it is all.
  static std::string whatIsWrong(const fs::path& home, int number, const std::optional<std::string>& uuid, File except,
                                 bool journals = true) {
    std::string wrong;
    const auto expect = [&](bool holds, File file) {
      if (!holds && file != except) wrong += concat(" file ", static_cast<int>(file), " at use ", number);
    };
    const auto text = [&](File file) { return bytesOf(pathOf(home, file)); };
    auto plist = platform::parsePropertyList(text(settings));
    expect(plist && plist->asDictionary() && platform::findInteger(*plist->asDictionary(), "number") == number,
           settings);
    expect(text(identifier).size() == 36 && (!uuid || text(identifier) == *uuid), identifier);
    for (const int each : {std::min(number, 3), number})
      expect(!journals || text(journal).find(concat("\"identifier\":", each, ",")) != std::string::npos, journal);
    expect(text(log).ends_with(concat("[ERROR]:use ", number, "\n")), log);
    return wrong;
  }

  /// How a process ends that does this in a home of its own; 0: well.
  int endOf(const std::function<int(const fs::path& home)>& body) {
    const test::TempDir folder;
    fs::copy(made(), folder.path(), fs::copy_options::recursive);
    return test::inFreshProcess([&] {
      ::alarm(60);
      return body(folder.path());
    });
  }

  static int told(const std::string& wrong) {
    if (!wrong.empty()) std::cerr << trying << ": not as it should be:" << wrong << "\n";
    return wrong.empty() ? 0 : 1;
  }

  void survives(File file, const std::string& damage, bool running,
                const std::function<void(const fs::path&)>& strike) {
    std::snprintf(trying, sizeof trying, "file %d, %s, %s", file, damage.c_str(), running ? "running" : "before");
    const int end = endOf([&](const fs::path& home) {
      const fs::path path = pathOf(home, file);
      std::optional<Process> process;
      if (running) process.emplace(home), process->use(2);
      strike(path);
      const std::string damaged = bytesOf(path);
      if (!running) process.emplace(home);
      process->use(3);
      std::string wrong = whatIsWrong(home, 3, process->uuid, file, process->journals);
      // What cannot be read may be worth a repair.
      if (file == settings && !running && fs::exists(path) &&
          test::LogDiary::installed().count("cannot be read") == 1) {
        if (bytesOf(path) != damaged) wrong += " replaced";
        fs::remove_all(path);
      }
      if (fs::exists(path) && !fs::is_regular_file(path)) fs::remove(path);
      for (const int number : {4, 5}) process->use(number);
      // A process does not look again for the identifier that it has read.
      return told(wrong +
                  whatIsWrong(home, 5, process->uuid, running && file == identifier ? file : none, process->journals));
    });
    driver_.expect(end == 0, concat(trying, ": ended with ", end));
  }

  /// Answers whether the fault has struck.
  bool failsAt(std::int64_t nth, int error, bool forEver) {
    std::snprintf(trying, sizeof trying, "call %d for a file gives %d %s", static_cast<int>(nth), error,
                  forEver ? "from then on" : "once");
    constexpr int kUntouched = 9;
    const std::string uuid = platform::readFile(pathOf(made(), identifier)).value();
    const int end = endOf([&](const fs::path& home) {
      FaultyCalls::error = error;
      FaultyCalls::forEver = forEver;
      FaultyCalls::left = nth;
      FaultyCalls::folder = home;
      Process process(home);
      for (const int number : {2, 3}) process.use(number);
      FaultyCalls::folder.clear();
      std::string wrong;
      auto plist = platform::parsePropertyList(bytesOf(pathOf(home, settings)));
      if (!plist || !plist->asDictionary()) wrong = " half settings";
      for (const int number : {4, 5}) process.use(number);
      if (FaultyCalls::failed == 0) return kUntouched;
      return told(wrong + whatIsWrong(home, 5, uuid, none, process.journals));
    });
    driver_.expect(end == 0 || end == kUntouched, concat(trying, ": ended with ", end));
    return end != kUntouched;
  }

  Driver& driver_;
  const test::TempDir folder_;
  fs::path made_;
};

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  for (const int end : {SIGSEGV, SIGBUS, SIGABRT, SIGALRM}) ::signal(end, tellTheEnd);
  Driver driver("disk", count, arguments, 4000);
  const test::TempDir home;
  std::int64_t done = PlainFiles(driver).tryAll();
  platform::setHomeDirectory(home.path());
  FaultyDisk::install();
  Stores stores(driver);
  // All of them are about so many; fewer go in longer steps.
  const std::int64_t longest = std::max<std::int64_t>(2 * 14'000 / driver.runs - 2, 0);
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

/// The power goes: whatever of the writes a disk may then hold is opened as the next start would open it.

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>

#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "faults/Driver.h"
#include "faults/FaultyCalls.h"
#include "faults/StoreWork.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"
#include "platform/urlsession/TransferJournal.h"
#include "support/FaultyDisk.h"
#include "support/LogDiary.h"

namespace tarvo::faults {
namespace {

using platform::concat;
using platform::FaultyDisk;
using Change = FaultyDisk::Change;

constexpr std::int64_t kSector = 512;

/// A file as the disk holds it for certain, and what has not been flushed yet.
struct File {
  std::string durable;
  std::vector<Change> pending;

  /// What a cut may leave. Length and truncations are those of one moment; each sector is that of a moment of its own.
  std::string after(const std::function<std::size_t(std::size_t moments)>& choose) const {
    std::map<std::int64_t, std::size_t> moments;
    const std::size_t known = choose(pending.size());
    std::string bytes = durable;
    for (std::size_t i = 0; i < pending.size(); ++i) {
      const Change& change = pending[i];
      const auto end = static_cast<std::size_t>(change.at) + change.bytes.size();
      if (change.call == FaultyDisk::truncate) {
        if (i >= known) break;  // what follows belongs to sectors that nothing leads to yet
        bytes.resize(end);
        continue;
      }
      if (i < known) bytes.resize(std::max(bytes.size(), end));
      for (std::size_t at = static_cast<std::size_t>(change.at); at < std::min(end, bytes.size());) {
        const std::size_t sector = at / kSector, next = std::min({(sector + 1) * kSector, end, bytes.size()});
        const auto [moment, isNew] = moments.try_emplace(static_cast<std::int64_t>(sector), 0);
        if (isNew) moment->second = choose(pending.size());
        if (i < moment->second)
          bytes.replace(at, next - at, change.bytes, at - static_cast<std::size_t>(change.at), next - at);
        at = next;
      }
    }
    return bytes;
  }
};

/// The files below a folder.
class Disk {
 public:
  explicit Disk(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (!entry.is_regular_file()) continue;
      live_[entry.path()] = files_.size();
      files_.push_back({bytesOf(entry.path()), {}});
    }
    durable_ = live_;
  }

  void take(const Change& change) {
    const auto known = live_.find(change.file);
    switch (change.call) {
      case FaultyDisk::open:
        if (known != live_.end()) return;
        name(change.file, files_.size());
        files_.emplace_back();
        return;
      case FaultyDisk::rename:
        name(change.bytes, known->second);
        return name(change.file, {});
      case FaultyDisk::remove:
        name(change.file, {});
        return settleNames(change.at != 0);
      case FaultyDisk::sync:
        if (known == live_.end()) return settleNames(true);  // a folder
        for (const Change& pending : std::exchange(files_[known->second].pending, {}))
          apply(files_[known->second].durable, pending);
        return settleNames(change.at != 0);
      default:
        files_[known->second].pending.push_back(change);
    }
  }

  bool isSettled() const {
    return names_.empty() && std::ranges::all_of(files_, [](const File& file) { return file.pending.empty(); });
  }

  /// Puts into a folder what a cut may leave: the names of one moment.
  void leave(const fs::path& folder, const std::function<std::size_t(std::size_t)>& choose) const {
    auto named = durable_;
    for (std::size_t i = 0, most = choose(names_.size()); i < most; ++i) set(named, names_[i]);
    for (const auto& [path, file] : named)
      std::ofstream(folder / path.filename(), std::ios::binary) << files_[file].after(choose);
  }

 private:
  using Names = std::map<fs::path, std::size_t>;
  using NameChange = std::pair<fs::path, std::optional<std::size_t>>;

  static void apply(std::string& bytes, const Change& change) {
    const auto at = static_cast<std::size_t>(change.at);
    if (change.call == FaultyDisk::truncate) return bytes.resize(at);
    bytes.resize(std::max(bytes.size(), at + change.bytes.size()));
    bytes.replace(at, change.bytes.size(), change.bytes);
  }
  static void set(Names& names, const NameChange& change) {
    names.erase(change.first);
    if (change.second) names[change.first] = *change.second;
  }
  void name(const fs::path& path, std::optional<std::size_t> file) { set(live_, names_.emplace_back(path, file)); }
  void settleNames(bool settles) {
    if (!settles) return;
    durable_ = live_;
    names_.clear();
  }

  std::vector<File> files_;
  Names live_, durable_;
  std::vector<NameChange> names_;  ///< not flushed
};

/// What was held when so many changes had been made.
struct Commit {
  std::size_t changes;
  std::string state;
};

class Cuts {
 public:
  explicit Cuts(Driver& driver) : driver_(driver) {}

  void tryAll(const Scenario& scenario) {
    const test::TempDir folder;
    starts_.copyTo(folder.path(), scenario.start);
    Disk disk(folder.path());
    std::vector<Change> changes;
    const test::TempDir before;  // another program that looks moves the write-ahead log
    starts_.copyTo(before.path(), scenario.start);
    std::vector<Commit> commits{{0, scenario.start == Start::nothing ? kEmpty : stateIn(before.path())}};
    FaultyDisk::record(&changes);
    {
      StoreWork work(folder.path());
      for (const auto step : scenario.steps) {
        work.run(step);
        if (const std::string state = stateIn(folder.path()); state != commits.back().state)
          commits.push_back({changes.size(), state});
      }
    }
    FaultyDisk::record(nullptr);
    std::size_t flushed = 0;  // commits that nothing can take any more
    for (std::size_t cut = 0; cut <= changes.size(); ++cut) {
      for (std::int64_t i = 0, times = timesFor(disk); i < times; ++i) tryOne(scenario, disk, commits, flushed, cut, i);
      if (cut == changes.size()) break;
      disk.take(changes[cut]);
      if (changes[cut].call != FaultyDisk::sync) continue;
      while (flushed + 1 < commits.size() && commits[flushed + 1].changes <= cut) ++flushed;
    }
  }

  std::int64_t done = 0;

 private:
  std::int64_t timesFor(const Disk& disk) const { return disk.isSettled() ? 1 : driver_.runs; }

  /// The first two are nothing of what is not flushed, and all of it: as after a kill.
  void tryOne(const Scenario& scenario, const Disk& disk, const std::vector<Commit>& commits, std::size_t flushed,
              std::size_t cut, std::int64_t time) {
    const bool isTorn = time % 2 == 0;
    const auto choose = [&](std::size_t moments) -> std::size_t {
      if (time < 2) return time == 0 ? 0 : moments;
      const auto most = static_cast<std::int64_t>(moments);
      return static_cast<std::size_t>(isTorn ? driver_.upTo(most) : driver_.upTo(1) * most);
    };
    const test::TempDir folder;
    disk.leave(folder.path(), choose);
    const auto expect = [&](bool holds, const std::string& otherwise) {
      driver_.expect(holds, concat(scenario.name, ", cut after ", cut, " changes, ", time, ": ", otherwise));
    };
    ++done;
    const fs::path file = folder.path() / ObjectStore::kFileName;
    test::LogDiary::installed().clear();
    {
      StoreWork next(folder.path());
      if (!next.isOpen()) return expect(false, "does not open: " + test::LogDiary::installed().lines().back());
      expect(isAllowed(stateOf(file), commits, flushed, cut), concat("holds ", stateOf(file)));
      expect(next.run(steps::nothing) && next.run(steps::add) && next.unfilled == 0, "cannot be gone on with");
    }
    expect(ask(file, "PRAGMA integrity_check") == "ok", "damaged");
  }

  /// One of the states from the last that is flushed to the one that was being written.
  static bool isAllowed(const std::string& state, const std::vector<Commit>& commits, std::size_t flushed,
                        std::size_t cut) {
    for (std::size_t i = flushed; i < commits.size(); ++i) {
      const bool isBegun = i == 0 || commits[i - 1].changes <= cut;
      if (isBegun && state == commits[i].state) return true;
    }
    return false;
  }

  static std::string stateIn(const fs::path& folder) { return stateOf(folder / ObjectStore::kFileName); }
  static constexpr const char* kEmpty = " trips  places 0 users 0";

  Driver& driver_;
  const Starts starts_;
};

/// The files that are written without SQLite: each change that has returned is there, none is there in part.
class PlainCuts {
 public:
  explicit PlainCuts(Driver& driver) : driver_(driver) {}

  std::int64_t tryAll(const fs::path& home) {
    const fs::path settings = home / "Library" / "Preferences", library = home / "Library",
                   transfers = library / "Transfers";
    auto& defaults = platform::UserDefaults::standard();
    tryOne(
        settings, 5, [&](int i) { defaults.set("number", std::string(600, static_cast<char>('a' + i))); },
        [](const fs::path& folder) {
          auto plist = platform::parsePropertyList(bytesOf(folder / "defaults.plist"));
          return plist ? platform::findString(*plist->asDictionary(), "number").value_or("?") : "none";
        });
    tryOne(
        library, 1, [](int) { (void)platform::UIDevice::current().identifierForVendor(); },
        [](const fs::path& folder) { return bytesOf(folder / "identifierForVendor"); });
    platform::TransferJournal journal(transfers, "j");
    const auto step = [&](int i) {
      const platform::URLRequest request{"http://a/", "POST", {{"a", std::string(300, 'a')}}};
      if (i < 3) journal.putResumed({i + 1, request, "/f"});
      if (i == 3) journal.remove(2);
      journal.flush();
    };
    tryOne(transfers, 4, step, [](const fs::path& folder) {
      std::string found;
      for (const auto& record : platform::TransferJournal(folder, "j").takeRestored())
        found += concat(record.task.taskIdentifier, " ");
      return found;
    });
    return done_;
  }

 private:
  void tryOne(const fs::path& folder, int steps, const std::function<void(int)>& step,
              const std::function<std::string(const fs::path&)>& read) {
    fs::create_directories(folder);
    const auto copied = [&] {
      const test::TempDir copy;
      for (const auto& entry : fs::directory_iterator(folder))
        if (entry.is_regular_file()) fs::copy(entry.path(), copy.path());
      return read(copy.path());
    };
    std::vector<Change> changes;
    std::vector<Commit> commits{{0, copied()}};
    Disk disk(folder);
    FaultyCalls::recorded = &changes;
    for (int i = 0; i < steps; ++i) {
      FaultyCalls::folder = folder;
      step(i);
      FaultyCalls::folder.clear();
      commits.push_back({changes.size(), copied()});
    }
    FaultyCalls::recorded = nullptr;
    for (std::size_t cut = 0; cut <= changes.size(); ++cut) {
      if (cut > 0) disk.take(changes[cut - 1]);
      for (std::int64_t i = 0; i < (disk.isSettled() ? 1 : 2 * driver_.runs); ++i, ++done_) {
        const test::TempDir left;
        disk.leave(left.path(), [&](std::size_t most) {
          return i < 2 ? static_cast<std::size_t>(i) * most
                       : static_cast<std::size_t>(driver_.upTo(static_cast<std::int64_t>(most)));
        });
        const std::string found = read(left.path());
        std::size_t whole = 0;
        while (whole + 1 < commits.size() && commits[whole + 1].changes <= cut) ++whole;
        driver_.expect(
            found == commits[whole].state || (whole + 1 < commits.size() && found == commits[whole + 1].state),
            concat(folder.native(), ", cut after ", cut, " changes, ", i, ": holds ", found));
      }
    }
  }

  Driver& driver_;
  std::int64_t done_ = 0;
};

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  Driver driver("power", count, arguments, 4);
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  test::LogDiary::installed();
  FaultyDisk::install();
  Cuts cuts(driver);
  for (const Scenario& scenario : scenarios()) cuts.tryAll(scenario);
  return driver.end(cuts.done + PlainCuts(driver).tryAll(home.path()));
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

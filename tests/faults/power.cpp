/// The power goes: whatever of the writes a disk may then hold is opened as the next start would open it.

#include <unistd.h>

#include <algorithm>
#include <map>

#include "faults/Driver.h"
#include "faults/StoreWork.h"
#include "platform/foundation/Text.h"
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
  bool isDurable = false;  ///< its name
  bool isRemoved = false;
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

class Disk {
 public:
  explicit Disk(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
      std::ifstream in(entry.path(), std::ios::binary);
      files_[entry.path()] = {{std::istreambuf_iterator<char>(in), {}}, true};
    }
  }

  void take(const Change& change) {
    File& file = files_[change.file];
    switch (change.call) {
      case FaultyDisk::remove:
        file.isRemoved = true;
        if (change.at != 0) settleNames();  // with a flush of the folder
        return;
      case FaultyDisk::open:
        if (file.isRemoved) file = {};
        return;
      case FaultyDisk::sync:
        for (const Change& pending : std::exchange(file.pending, {})) apply(file.durable, pending);
        settleNames();  // SQLite flushes the folder with a file's first flush
        return;
      default:
        file.pending.push_back(change);
    }
  }

  bool isSettled() const {
    return std::ranges::all_of(
        files_, [](const auto& named) { return named.second.pending.empty() && !named.second.isRemoved; });
  }

  /// Puts into a folder what a cut may leave.
  void leave(const fs::path& folder, const std::function<std::size_t(std::size_t)>& choose) const {
    for (const auto& [path, file] : files_) {
      const bool isThere = file.isRemoved ? choose(1) == 0 : file.isDurable || choose(1) == 1;
      if (isThere) std::ofstream(folder / path.filename(), std::ios::binary) << file.after(choose);
    }
  }

 private:
  static void apply(std::string& bytes, const Change& change) {
    const auto at = static_cast<std::size_t>(change.at);
    if (change.call == FaultyDisk::truncate) return bytes.resize(at);
    bytes.resize(std::max(bytes.size(), at + change.bytes.size()));
    bytes.replace(at, change.bytes.size(), change.bytes);
  }
  void settleNames() {
    std::erase_if(files_, [](const auto& named) { return named.second.isRemoved; });
    for (auto& [path, file] : files_) file.isDurable = true;
  }

  std::map<fs::path, File> files_;
};

/// What the store held when so many changes had been made, and how many of them were flushed by then for good.
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

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  Driver driver("power", count, arguments, 4);
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  test::LogDiary::installed();
  FaultyDisk::install();
  Cuts cuts(driver);
  for (const Scenario& scenario : scenarios()) cuts.tryAll(scenario);
  return driver.end(cuts.done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

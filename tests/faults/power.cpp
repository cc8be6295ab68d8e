/// The power goes: whatever of the writes a disk may then hold is opened as the next start would open it.

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>

#include "faults/Driver.h"
#include "faults/FaultyCalls.h"
#include "faults/StoreWork.h"
#include "platform/foundation/Text.h"
#include "support/LogDiary.h"

namespace tarvo::faults {
namespace {

using platform::concat;

constexpr std::int64_t kSector = 512;

/// The files of a folder, and what has happened to them.
struct Disk {
  std::map<std::string, std::string> files;
  std::vector<Change> changes;

  static bool isOfNames(const Change& change) { return change.call == Change::make || change.call == Change::remove; }

  /// For each file, and for "", the names of all: so many of the first changes are certain.
  std::map<std::string, std::size_t> flushed(std::size_t cut) const {
    std::map<std::string, std::size_t> known;
    for (std::size_t i = 0; i < cut; ++i)
      if (changes[i].call == Change::sync) known[fs::is_directory(changes[i].file) ? "" : changes[i].file] = i;
    return known;
  }
  bool isSettled(std::size_t cut) const {
    auto certain = flushed(cut);
    for (std::size_t i = 0; i < cut; ++i)
      if (changes[i].call != Change::sync && i >= certain[isOfNames(changes[i]) ? "" : changes[i].file]) return false;
    return true;
  }

  /// Puts into a folder what a cut may leave. Names are those of one moment, so are the length and the truncations of a
  /// file; each sector is that of a moment of its own.
  void leave(const fs::path& folder, std::size_t cut, const std::function<std::size_t(std::size_t)>& choose) const {
    auto left = files;
    auto certain = flushed(cut);
    std::map<std::pair<std::string, std::int64_t>, std::size_t> moments;
    const auto reaches = [&](std::size_t i, const std::string& file, std::int64_t sector = -1) {
      const std::size_t known = certain[file];
      const auto [moment, isNew] = moments.try_emplace({file, sector}, 0);
      if (isNew) moment->second = known + choose(cut - known);
      return i < moment->second;
    };
    std::set<std::string> others;  ///< files that nothing leads to yet
    for (std::size_t i = 0; i < cut; ++i) {
      const auto& [call, name, text, at] = changes[i];
      if (call == Change::sync || (call == Change::make && left.contains(name))) continue;
      if (isOfNames(changes[i])) {
        if (!reaches(i, ""))
          others.insert(name);
        else if (call == Change::make)
          left[name];
        else
          left.erase(name);
        continue;
      }
      if (others.contains(name)) continue;
      std::string& bytes = left.at(name);
      const auto end = static_cast<std::size_t>(at) + text.size();
      if (call == Change::truncate) {
        if (reaches(i, name))
          bytes.resize(end);
        else
          others.insert(name);
        continue;
      }
      if (reaches(i, name)) bytes.resize(std::max(bytes.size(), end));
      for (auto from = static_cast<std::size_t>(at); from < std::min(end, bytes.size());) {
        const std::size_t sector = from / kSector, to = std::min({(sector + 1) * kSector, end, bytes.size()});
        if (reaches(i, name, static_cast<std::int64_t>(sector)))
          bytes.replace(from, to - from, text, from - static_cast<std::size_t>(at), to - from);
        from = to;
      }
    }
    for (const auto& [name, bytes] : left) std::ofstream(folder / fs::path(name).filename()) << bytes;
  }
};

class Cuts {
 public:
  explicit Cuts(Driver& driver) : driver_(driver) {}

  void tryAll(const Scenario& scenario) {
    const test::TempDir folder;
    starts_.copyTo(folder.path(), scenario.start);
    Disk disk;
    for (const auto& entry : fs::directory_iterator(folder.path())) disk.files[entry.path()] = bytesOf(entry.path());
    // What was held when so many changes had been made.
    std::vector<std::pair<std::size_t, std::string>> held{{0, seen(folder.path())}};
    FaultyCalls::recorded = &disk.changes;
    std::optional<StoreWork> work;
    for (std::size_t step = 0; step < scenario.steps.size() + 2; ++step) {
      FaultyCalls::folder = folder.path();
      if (step == 0)
        work.emplace(folder.path());
      else if (step <= scenario.steps.size())
        work->run(scenario.steps[step - 1]);
      else
        work.reset();
      FaultyCalls::folder.clear();
      if (const auto now = seen(folder.path()); now != held.back().second) held.emplace_back(disk.changes.size(), now);
    }
    std::size_t certain = 0;
    for (std::size_t cut = 0; cut <= disk.changes.size(); ++cut) {
      const bool isSettled = disk.isSettled(cut);
      while (isSettled && certain + 1 < held.size() && held[certain + 1].first <= cut) ++certain;
      for (std::int64_t time = 0, times = isSettled ? 1 : driver_.runs; time < times; ++time, ++done) {
        const std::string found = afterCut(disk, cut, time);
        // One of the states from the last that is certain to the one that was being made.
        bool isAllowed = false;
        for (std::size_t i = certain; i < held.size() && (i == 0 || held[i - 1].first <= cut); ++i)
          isAllowed |= found == held[i].second;
        driver_.expect(isAllowed, concat(scenario.name, ", cut after ", cut, " changes, ", time, ": ", found));
      }
    }
  }

  std::int64_t done = 0;

 private:
  /// The first two are nothing of what is not flushed, and all of it: as after a kill. Of the others every second one
  /// is torn.
  std::string afterCut(const Disk& disk, std::size_t cut, std::int64_t time) {
    const test::TempDir left;
    disk.leave(left.path(), cut, [&](std::size_t moments) -> std::size_t {
      if (time < 2) return time == 0 ? 0 : moments;
      const auto most = static_cast<std::int64_t>(moments);
      return static_cast<std::size_t>(time % 2 == 0 ? driver_.upTo(most) : driver_.upTo(1) * most);
    });
    return nextSees(left.path());
  }

  /// In a copy: whoever looks changes something.
  static std::string seen(const fs::path& folder) {
    const test::TempDir copy;
    fs::copy(folder, copy.path());
    return nextSees(copy.path());
  }

  /// What the store of a folder holds for the next process, if that can go on with it.
  static std::string nextSees(const fs::path& folder) {
    const fs::path file = folder / ObjectStore::kFileName;
    test::LogDiary::installed().clear();
    std::string state;
    {
      StoreWork next(folder);
      if (!next.isOpen()) return "does not open: " + test::LogDiary::installed().lines().back();
      state = stateOf(file);
      if (!next.run(steps::nothing) || !next.run(steps::add) || next.unfilled > 0) return "cannot be gone on with";
    }
    return ask(file, "PRAGMA integrity_check") == "ok" ? state : "damaged";
  }

  Driver& driver_;
  const Starts starts_;
};

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  Driver driver("power", count, arguments, 4);
  test::LogDiary::installed();
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  Cuts cuts(driver);
  for (const Scenario& scenario : kScenarios) cuts.tryAll(scenario);
  return driver.end(cuts.done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

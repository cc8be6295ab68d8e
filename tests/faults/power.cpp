/// The power goes: whatever of the writes a disk may then hold is opened as the next start would open it.

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>

#include "faults/Driver.h"
#include "faults/FaultyCalls.h"
#include "faults/StoreWork.h"
#include "platform/device/KeptIdentifier.h"

namespace tarvo::faults {
namespace {

constexpr std::int64_t kSector = 512;

/// The files of a folder, and what has happened to them.
struct Disk {
  const fs::path root;
  std::map<std::string, std::string> files;
  std::vector<Change> changes;

  /// Puts into a folder what a cut after so many changes may leave: those of a file, or of the names in a folder, are
  /// certain up to the last that was flushed. The names of a folder are those of one moment, so are the length and the
  /// truncations of a file; each sector is that of a moment of its own. `choose` is asked for these: how many of so
  /// many changes are there?
  void leave(const fs::path& folder, std::size_t cut, const std::function<std::size_t(std::size_t)>& choose) const {
    auto left = files;
    std::map<std::string, std::size_t> certain;
    for (std::size_t i = 0; i < cut; ++i)
      if (changes[i].call == Change::sync) certain[changes[i].file] = i;
    std::map<std::pair<std::string, std::int64_t>, std::size_t> moments;
    const auto reaches = [&](std::size_t i, const std::string& place, std::int64_t sector = -1) {
      const std::size_t known = certain[place];
      if (i < known) return true;
      const auto [moment, isNew] = moments.try_emplace({place, sector}, 0);
      if (isNew) moment->second = known + choose(cut - known);
      return i < moment->second;
    };
    std::set<std::string> others;  ///< files that nothing leads to yet
    for (std::size_t i = 0; i < cut; ++i) {
      const auto& [call, name, text, at] = changes[i];
      const bool isOfNames = call >= Change::make;
      if (call == Change::sync || (isOfNames ? call == Change::make && left.contains(name) : others.contains(name)))
        continue;
      const bool isReached = reaches(i, isOfNames ? fs::path(name).parent_path().native() : name);
      if (!isReached && call != Change::write) {
        others.insert(call == Change::rename ? text : name);
      } else if (isOfNames) {
        const std::string bytes = std::exchange(left[name], "");
        if (call != Change::make) left.erase(name);
        if (call == Change::rename) left[text] = bytes;
      } else {
        std::string& bytes = left.at(name);
        const auto start = static_cast<std::size_t>(at), end = start + text.size();
        if (isReached) bytes.resize(call == Change::truncate ? end : std::max(bytes.size(), end));
        for (std::size_t from = start, to; from < std::min(end, bytes.size()); from = to) {
          const std::size_t sector = from / kSector;
          to = std::min({(sector + 1) * kSector, end, bytes.size()});
          if (reaches(i, name, static_cast<std::int64_t>(sector)))
            bytes.replace(from, to - from, text, from - start, to - from);
        }
      }
    }
    for (const auto& [name, bytes] : left) {
      const fs::path file = folder / fs::path(name).lexically_relative(root);
      fs::create_directories(file.parent_path());
      std::ofstream(file) << bytes;
    }
  }
};

/// What the next process finds in the files beside the store: of the log its header, whose lines may go.
std::string plainState(const fs::path& home) {
  std::string state;
  for (const auto& [task, outcome] : platform::TransferJournal(home / "Library/Transfers", "j").takeRestored())
    if (task.taskIdentifier != kOver) state += concat(task.taskIdentifier, " ");
  for (const PlainFile& file : kPlainFiles)
    if (const auto path = home / file.path; &file != kJournal && fs::exists(path))
      state += concat(file.path, ": ", bytesOf(path).substr(0, bytesOf(path).find("\r\n\r\n")), "\n");
  return state;
}

/// What the store of a folder holds for the next process, if that can go on with it.
std::string storeState(const fs::path& folder) {
  const fs::path file = folder / ObjectStore::kFileName;
  std::string state;
  {
    StoreWork next(folder);
    if (!next.store.persistentStoreCoordinator()->hasStore()) return "does not open";
    state = StoreWork::stateOf(file);
    if (!next.run(StoreWork::nothing) || !next.run(StoreWork::add) || next.unfilled > 0)
      return "cannot be gone on with";
  }
  return ask(file, "PRAGMA integrity_check") == "ok" ? state : "damaged";
}

/// Records what the steps change in a folder, and has `stateIn` look at what each cut may leave of that. Answers how
/// often. `keepsEach`: what a step has done is on the disk when it ends.
std::int64_t cutEverywhere(Driver& driver, const std::string& name, const fs::path& folder,
                           const std::vector<std::function<void()>>& steps,
                           std::string (*stateIn)(const fs::path& folder), bool keepsEach) {
  const auto seen = [&] {
    const test::TempDir copy;  // whoever looks changes something
    fs::copy(folder, copy.path(), fs::copy_options::recursive);
    return stateIn(copy.path());
  };
  Disk disk{folder, {}, {}};
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    if (entry.is_regular_file()) disk.files[entry.path()] = bytesOf(entry.path());
  // What was held when so many changes had been made.
  std::vector<std::pair<std::size_t, std::string>> held{{0, seen()}};
  FaultyCalls::recorded = &disk.changes;
  for (const auto& step : steps) {
    FaultyCalls::folder = folder;
    step();
    FaultyCalls::folder.clear();
    if (const auto now = seen(); now != held.back().second) held.emplace_back(disk.changes.size(), now);
  }
  std::int64_t done = 0;
  std::size_t certain = 0;
  for (std::size_t cut = 0; cut <= disk.changes.size(); ++cut) {
    bool isSettled = true;
    for (std::int64_t time = 0; time < (isSettled ? 1 : driver.runs); ++time, ++done) {
      // The first two are nothing of what is not flushed, and all of it: as after a kill. Of the others every second
      // one is torn.
      const test::TempDir left;
      disk.leave(left.path(), cut, [&](std::size_t moments) -> std::size_t {
        isSettled = false;
        if (time < 2) return time == 0 ? 0 : moments;
        const auto most = static_cast<std::int64_t>(moments);
        return static_cast<std::size_t>(time % 2 == 0 ? driver.upTo(most) : driver.upTo(1) * most);
      });
      while ((isSettled || keepsEach) && certain + 1 < held.size() && held[certain + 1].first <= cut) ++certain;
      const std::string found = stateIn(left.path());
      // One of the states from the last that is certain to the one that was being made.
      bool isAllowed = false;
      for (std::size_t i = certain; i < held.size() && (i == 0 || held[i - 1].first <= cut); ++i)
        isAllowed |= found == held[i].second;
      driver.expect(isAllowed, concat(name, ", cut after ", cut, " changes, ", time, ": ", found));
    }
  }
  return done;
}

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  Driver driver("power", count, arguments, 4);
  test::LogDiary::installed();
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  std::int64_t done = 0;
  for (const Scenario& scenario : kScenarios) {
    const test::TempDir folder;
    scenario.begin(folder.path());
    std::optional<StoreWork> work;
    std::vector<std::function<void()>> steps{[&] { work.emplace(folder.path()); }};
    for (const auto step : scenario.steps) steps.emplace_back([&, step] { work->run(step); });
    steps.emplace_back([&] { work.reset(); });
    done += cutEverywhere(driver, scenario.name, folder.path(), steps, storeState, false);
  }
  fs::remove(home.path() / kIdentifier->path);
  platform::forgetKeptIdentifier();  // which the store's positions have named
  std::optional<PlainWork> work;
  std::vector<std::function<void()>> steps{[&] { work.emplace(home.path()); }};
  for (const int number : {0, 1, 2})
    for (const PlainFile& file : kPlainFiles) steps.emplace_back([&, number] { file.use(*work, number); });
  done += cutEverywhere(driver, "files beside the store", home.path(), steps, plainState, true);
  return driver.end(done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

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
#include "support/LogDiary.h"

namespace tarvo::faults {
namespace {

using platform::concat;

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
      if (change.call == Change::truncate) {
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

  void flush() {
    durable = after([](std::size_t moments) { return moments; });
    pending.clear();
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
      case Change::make:
        if (known != live_.end()) return;
        name(change.file, files_.size());
        files_.emplace_back();
        return;
      case Change::rename:
        name(change.bytes, known->second);
        return name(change.file, {});
      case Change::remove:
        return name(change.file, {});
      case Change::sync:
        if (known != live_.end()) return files_[known->second].flush();
        durable_ = live_;  // a folder
        return names_.clear();
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

  static void set(Names& names, const NameChange& change) {
    names.erase(change.first);
    if (change.second) names[change.first] = *change.second;
  }
  void name(const fs::path& path, std::optional<std::size_t> file) { set(live_, names_.emplace_back(path, file)); }

  std::vector<File> files_;
  Names live_, durable_;
  std::vector<NameChange> names_;  ///< not flushed
};

/// What is done in a folder, and what one finds there later.
struct Scene {
  std::string name;
  fs::path folder;
  std::vector<std::function<void()>> steps;
  std::function<std::string(const fs::path& folder)> look;
  bool isFlushed = true;  ///< nothing can take what a step has done once it has returned
};

class Cuts {
 public:
  explicit Cuts(Driver& driver) : driver_(driver) {}

  void tryAll(const Scene& scene) {
    Disk disk(scene.folder);
    std::vector<Change> changes;
    // What was held when so many changes had been made.
    std::vector<std::pair<std::size_t, std::string>> held{{0, seen(scene)}};
    FaultyCalls::recorded = &changes;
    for (const auto& step : scene.steps) {
      FaultyCalls::folder = scene.folder;
      step();
      FaultyCalls::folder.clear();
      if (const std::string now = seen(scene); now != held.back().second) held.emplace_back(changes.size(), now);
    }
    driver_.expect(held.size() > 1, scene.name + ": nothing is done");
    std::size_t certain = 0;
    for (std::size_t cut = 0; cut <= changes.size(); ++cut) {
      if (cut > 0) disk.take(changes[cut - 1]);
      if (scene.isFlushed || disk.isSettled())
        while (certain + 1 < held.size() && held[certain + 1].first <= cut) ++certain;
      for (std::int64_t time = 0, times = disk.isSettled() ? 1 : driver_.runs; time < times; ++time, ++done) {
        const std::string found = afterCut(disk, scene, time);
        // One of the states from the last that is certain to the one that was being made.
        bool isAllowed = false;
        for (std::size_t i = certain; i < held.size() && (i == 0 || held[i - 1].first <= cut); ++i)
          isAllowed |= found == held[i].second;
        driver_.expect(isAllowed, concat(scene.name, ", cut after ", cut, " changes, ", time, ": ", found));
      }
    }
  }

  std::int64_t done = 0;

 private:
  /// The first two are nothing of what is not flushed, and all of it: as after a kill. Of the others every second one
  /// is torn.
  std::string afterCut(const Disk& disk, const Scene& scene, std::int64_t time) {
    const test::TempDir left;
    disk.leave(left.path(), [&](std::size_t moments) -> std::size_t {
      if (time < 2) return time == 0 ? 0 : moments;
      const auto most = static_cast<std::int64_t>(moments);
      return static_cast<std::size_t>(time % 2 == 0 ? driver_.upTo(most) : driver_.upTo(1) * most);
    });
    return scene.look(left.path());
  }

  /// In a copy: whoever looks changes something.
  static std::string seen(const Scene& scene) {
    const test::TempDir copy;
    for (const auto& entry : fs::directory_iterator(scene.folder))
      if (entry.is_regular_file()) fs::copy(entry.path(), copy.path());
    return scene.look(copy.path());
  }

  Driver& driver_;
};

/// What the store of a folder holds for the next process, if that can go on with it.
std::string nextSees(const fs::path& folder) {
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

void cutStores(Cuts& cuts) {
  const Starts starts;
  for (const Scenario& scenario : kScenarios) {
    const test::TempDir folder;
    starts.copyTo(folder.path(), scenario.start);
    std::optional<StoreWork> work;
    std::vector<std::function<void()>> steps{[&] { work.emplace(folder.path()); }};
    for (const auto step : scenario.steps) steps.emplace_back([&work, step] { work->run(step); });
    steps.emplace_back([&] { work.reset(); });
    cuts.tryAll({scenario.name, folder.path(), steps, nextSees, false});
  }
}

/// The files that are written without SQLite: each change that has returned is there, none is there in part.
void cutFiles(Cuts& cuts, const fs::path& home) {
  const fs::path library = home / "Library", transfers = library / "Transfers";
  fs::create_directories(library / "Preferences");
  std::vector<std::function<void()>> sets;
  for (const char letter : {'a', 'b', 'c', 'd', 'e'})
    sets.emplace_back([letter] { platform::UserDefaults::standard().set("number", std::string(600, letter)); });
  cuts.tryAll({"settings", library / "Preferences", sets, [](const fs::path& folder) {
                 auto plist = platform::parsePropertyList(bytesOf(folder / "defaults.plist"));
                 return plist ? platform::findString(*plist->asDictionary(), "number").value_or("?") : "none";
               }});
  cuts.tryAll({"identifier",
               library,
               {[] { (void)platform::UIDevice::current().identifierForVendor(); }},
               [](const fs::path& folder) { return bytesOf(folder / "identifierForVendor"); }});
  platform::TransferJournal journal(transfers, "j");
  const platform::URLRequest request{"http://a/", "POST", {{"a", std::string(300, 'a')}}};
  std::vector<std::function<void()>> notes;
  for (const int number : {1, 2, 3, -2})
    notes.emplace_back([&, number] {
      number > 0 ? journal.putResumed({number, request, "/f"}) : journal.remove(-number);
      journal.flush();
    });
  cuts.tryAll({"journal", transfers, notes, [](const fs::path& folder) {
                 std::string found;
                 for (const auto& record : platform::TransferJournal(folder, "j").takeRestored())
                   found += concat(record.task.taskIdentifier, " ");
                 return found;
               }});
}

int run(int count, char** arguments) {
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
  Driver driver("power", count, arguments, 4);
  test::LogDiary::installed();
  const test::TempDir home;
  platform::setHomeDirectory(home.path());
  Cuts cuts(driver);
  cutFiles(cuts, home.path());  // the first to ask for the identifier
  cutStores(cuts);
  return driver.end(cuts.done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::run(count, arguments); }

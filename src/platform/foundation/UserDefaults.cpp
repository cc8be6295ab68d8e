#include <tarvo/platform/UserDefaults.h>

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <utility>
#include <vector>

#include "platform/foundation/DefaultsConversion.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/Timer.h"
#include "platform/foundation/UserDefaultsChanges.h"

namespace tarvo::platform {

namespace {

std::atomic<std::uint64_t> changes{1};

constexpr Seconds kFirstPause{1}, kLongestPause{300};

Result<Dictionary> readSettings(const std::filesystem::path& file) {
  auto bytes = readFile(file);
  if (!bytes) return bytes.error();
  auto value = parsePropertyList(*bytes);
  if (!value) return value.error();
  if (value->asDictionary() == nullptr) return Error{.localizedDescription = "not a dictionary"};
  return *value->asDictionary();
}

}  // namespace

std::uint64_t userDefaultsChanges() { return changes.load(std::memory_order_acquire); }

// Readers take `mutex` alone and for a look-up only: they never wait for the disk. Writers take `writing` first.
struct UserDefaults::State {
  explicit State(std::filesystem::path path) : file(std::move(path)) {}

  void load() EXCLUDES(mutex);
  void change(std::string_view key, std::optional<Value> value) EXCLUDES(writing, mutex);
  bool synchronize() EXCLUDES(writing, mutex);
  void whenSynchronized(std::function<void()> block) EXCLUDES(writing, mutex);

  const std::filesystem::path file;
  // Both constant once loaded.
  std::string complaint;
  bool keptInMemory = false;
  std::atomic<bool> complained = false;
  /// Follows `written`, to be read without waiting for a write.
  std::atomic<bool> isWritten = true;

 private:
  using Blocks = std::vector<std::function<void()>>;
  /// Writes the file; what waits for that is to be run once no lock is held.
  std::optional<Error> write(Blocks& ready) REQUIRES(writing) EXCLUDES(mutex);
  void tryLater() REQUIRES(writing);

  Mutex writing;
  bool written GUARDED_BY(writing) = true;
  bool cleared GUARDED_BY(writing) = false;
  Blocks waiting GUARDED_BY(writing);
  std::shared_ptr<Timer> retry GUARDED_BY(writing);
  Seconds pause GUARDED_BY(writing) = kFirstPause;

 public:
  Mutex mutex;
  Dictionary values GUARDED_BY(mutex);
  Dictionary own GUARDED_BY(mutex);  ///< of these, what this process has set; null where it has removed
};

void UserDefaults::State::load() {
  std::error_code failure;
  if (!std::filesystem::exists(file, failure) && !failure) return;
  auto settings = readSettings(file);
  if (settings) {
    MutexLock lock(mutex);
    values = std::move(*settings);
    return;
  }
  // What cannot be read may still be worth repairing, so it is not replaced.
  keptInMemory = true;
  complaint = concat("The user defaults cannot be read and are kept in memory until the file is repaired or removed: ",
                     file.native(), " (", settings.error().localizedDescription, ")");
}

void UserDefaults::State::change(std::string_view key, std::optional<Value> value) {
  Blocks ready;
  std::optional<Error> error;
  {
    MutexLock writeLock(writing);
    // They hold credentials. By the first change, for a process that only reads removes nothing.
    if (!std::exchange(cleared, true)) removeAbandonedWrites(file.parent_path());
    {
      MutexLock lock(mutex);
      auto found = values.find(key);
      const bool same = found == values.end() ? !value : value && found->second == *value;
      if (same && written) return;
      if (!value && found != values.end()) values.erase(found);
      own.insert_or_assign(std::string(key), value.value_or(nullptr));
      if (value) values.insert_or_assign(std::string(key), std::move(*value));
      changes.fetch_add(1, std::memory_order_release);  // behind what has changed
    }
    if (keptInMemory) return;
    error = write(ready);
  }
  // With no lock held: sink and blocks belong to others.
  if (error) NSLog("The user defaults cannot be written: " + error->localizedDescription);
  for (const auto& block : ready) block();
}

std::optional<Error> UserDefaults::State::write(Blocks& ready) {
  // Another process on the home may have written since: what it set stays.
  auto inFile = readSettings(file);
  Dictionary snapshot;
  {
    MutexLock lock(mutex);
    if (inFile) {
      values = std::move(*inFile);
      for (const auto& [key, value] : own) {
        if (value.isNull())
          values.erase(key);
        else
          values.insert_or_assign(key, value);
      }
      changes.fetch_add(1, std::memory_order_release);  // behind what the other process has changed
    }
    snapshot = values;
  }
  std::optional<Error> error = createPrivateDirectories(file.parent_path());
  if (!error) error = writeFileAtomically(file, serializePropertyList(snapshot), true);
  written = !error;
  isWritten = written;
  if (written) {
    retry = nullptr;
    pause = kFirstPause;
    ready.swap(waiting);
  } else {
    tryLater();
  }
  return error;
}

void UserDefaults::State::tryLater() {
  if (retry) return;
  static auto& queue = *new SerialQueue("UserDefaults");
  retry = Timer::after(pause, queue, [this] {
    {
      MutexLock lock(writing);
      retry = nullptr;
    }
    synchronize();
  });
  pause = std::min(2 * pause, kLongestPause);
}

bool UserDefaults::State::synchronize() {
  if (keptInMemory) return false;
  if (isWritten) return true;
  Blocks ready;
  bool done = false;
  {
    MutexLock lock(writing);
    done = written || !write(ready);
  }
  for (const auto& block : ready) block();
  return done;
}

void UserDefaults::State::whenSynchronized(std::function<void()> block) {
  {
    MutexLock lock(writing);
    if (keptInMemory || !written) {
      waiting.push_back(std::move(block));
      return;
    }
  }
  block();
}

UserDefaults& UserDefaults::standard() {
  static UserDefaults* const defaults = new UserDefaults;
  // Told once the object stands: whoever receives the line may ask for it.
  State& state = *defaults->state_;
  if (!state.complaint.empty() && !state.complained.exchange(true)) NSLog(state.complaint);
  return *defaults;
}

UserDefaults::UserDefaults() : state_(new State(homeDirectory() / "Library" / "Preferences" / "defaults.plist")) {
  state_->load();
}

std::int64_t UserDefaults::integer(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? 0 : defaultsInteger(*value);
}

double UserDefaults::number(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? 0 : defaultsNumber(*value);
}

bool UserDefaults::boolean(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value != nullptr && defaultsBoolean(*value);
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? std::nullopt : defaultsString(*value);
}

std::optional<Value> UserDefaults::object(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? std::nullopt : std::optional<Value>(*value);
}

void UserDefaults::set(std::string_view key, Value value) {
  state_->change(key, value.isNull() ? std::nullopt : std::optional<Value>(std::move(value)));
}

void UserDefaults::remove(std::string_view key) { state_->change(key, std::nullopt); }
bool UserDefaults::synchronize() { return state_->synchronize(); }

void whenUserDefaultsAreWritten(std::function<void()> block) {
  UserDefaults::standard().state_->whenSynchronized(std::move(block));
}

}  // namespace tarvo::platform

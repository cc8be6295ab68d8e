#include <tarvo/platform/UserDefaults.h>

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

#include <atomic>
#include <filesystem>
#include <utility>

#include "platform/foundation/DefaultsConversion.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/UserDefaultsChanges.h"

namespace tarvo::platform {

namespace {

std::atomic<std::uint64_t> changes{1};

}  // namespace

std::uint64_t userDefaultsChanges() { return changes.load(std::memory_order_acquire); }

// Readers take `mutex` alone and for a look-up only: they never wait for the disk. Writers take `writing` first.
struct UserDefaults::State {
  explicit State(std::filesystem::path path) : file(std::move(path)) {}

  void load() EXCLUDES(mutex);
  /// Makes one change and writes the file; the line for the system log if that failed, else an empty text.
  std::string change(std::string_view key, std::optional<Value> value) EXCLUDES(writing, mutex);

  const std::filesystem::path file;
  // Both constant once loaded.
  std::string complaint;
  bool keptInMemory = false;
  std::atomic<bool> complained = false;

  Mutex writing;
  bool written GUARDED_BY(writing) = true;
  bool cleared GUARDED_BY(writing) = false;
  Mutex mutex;
  Dictionary values GUARDED_BY(mutex);
};

void UserDefaults::State::load() {
  std::error_code failure;
  if (!std::filesystem::exists(file, failure) && !failure) return;
  auto bytes = readFile(file);
  auto value = bytes ? parsePropertyList(*bytes) : Result<Value>(bytes.error());
  if (value && value->asDictionary() != nullptr) {
    MutexLock lock(mutex);
    values = *value->asDictionary();
    return;
  }
  // What cannot be read may still be worth repairing, so it is not replaced.
  keptInMemory = true;
  complaint = concat("The user defaults cannot be read and are kept in memory until the file is repaired or removed: ",
                     file.native(), value ? " (not a dictionary)" : " (" + value.error().localizedDescription + ")");
}

std::string UserDefaults::State::change(std::string_view key, std::optional<Value> value) {
  MutexLock writeLock(writing);
  // They hold credentials. By the first change, for a process that only reads removes nothing.
  if (!std::exchange(cleared, true)) removeAbandonedWrites(file.parent_path());
  Dictionary snapshot;
  {
    MutexLock lock(mutex);
    auto found = values.find(key);
    const bool same = found == values.end() ? !value : value && found->second == *value;
    if (same && written) return {};
    if (!value && found != values.end()) values.erase(found);
    if (value) values.insert_or_assign(std::string(key), std::move(*value));
    changes.fetch_add(1, std::memory_order_release);  // behind what has changed
    if (keptInMemory) return {};
    snapshot = values;
  }
  std::optional<Error> error = createPrivateDirectories(file.parent_path());
  if (!error) error = writeFileAtomically(file, serializePropertyList(snapshot), true);
  written = !error;
  return error ? "The user defaults cannot be written: " + error->localizedDescription : std::string();
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
  // The line is written with no lock held: the sink is the host's.
  NSLog(state_->change(key, value.isNull() ? std::nullopt : std::optional<Value>(std::move(value))));
}

void UserDefaults::remove(std::string_view key) { NSLog(state_->change(key, std::nullopt)); }

}  // namespace tarvo::platform

#include <tarvo/platform/UserDefaults.h>

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <utility>
#include <vector>

#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/HomeErasure.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/Timer.h"

namespace tarvo::platform {
namespace {

constexpr Seconds kFirstPause{1}, kLongestPause{300};

Result<Dictionary> readSettings(const std::filesystem::path& file) {
  auto bytes = readFile(file);
  if (!bytes) return bytes.error();
  auto value = parsePropertyList(*bytes);
  if (!value) return value.error();
  if (value->asDictionary() == nullptr) return Error{.localizedDescription = "not a dictionary"};
  return *value->asDictionary();
}

std::string_view withoutLeading(std::string_view text, std::string_view characters) {
  return text.substr(std::min(text.find_first_not_of(characters), text.size()));
}

/// The text from its first digit, point or minus sign on: blanks and a plus sign are skipped.
std::string_view numberStart(std::string_view text) {
  text = withoutLeading(text, " \t\r\n\v\f");
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  return text;
}

std::int64_t leadingInteger(std::string_view text) {
  text = numberStart(text);
  std::int64_t value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (failure != std::errc::result_out_of_range) return value;
  return text.front() == '-' ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

double leadingNumber(std::string_view text) {
  text = numberStart(text);
  // The parser would also take "inf" and "nan".
  const std::string_view magnitude = text.substr(text.starts_with('-') ? 1 : 0);
  if (magnitude.find_first_of("0123456789.") != 0) return 0;
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::int64_t cut(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
  if (value < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

// How a stored value is read as another type. What does not convert is 0, false or absent.

/// Texts give their leading number ("12abc" is 12), doubles lose their fraction, all within the range of 64 bits.
std::int64_t integerOf(const Value& value) {
  if (auto boolean = value.asBool()) return *boolean ? 1 : 0;
  if (const std::string* text = value.asString()) return leadingInteger(*text);
  if (auto integer = value.asInteger()) return *integer;
  return cut(value.asDouble().value_or(0));
}

double numberOf(const Value& value) {
  if (auto boolean = value.asBool()) return *boolean ? 1 : 0;
  if (const std::string* text = value.asString()) return leadingNumber(*text);
  return value.asDouble().value_or(0);
}

/// Numbers are true unless 0; texts when they begin with Y, y, T, t or, after sign and zeros, with a digit 1 to 9.
bool booleanOf(const Value& value) {
  const std::string* text = value.asString();
  if (text == nullptr) return numberOf(value) != 0;
  std::string_view rest = withoutLeading(*text, " \t\r\n\v\f");
  if (rest.starts_with('+') || rest.starts_with('-')) rest.remove_prefix(1);
  rest = withoutLeading(rest, "0");
  return !rest.empty() && std::string_view("YyTt123456789").find(rest.front()) != std::string_view::npos;
}

/// Texts and numbers; a Boolean gives "1" or "0".
std::optional<std::string> stringOf(const Value& value) {
  if (auto boolean = value.asBool()) return *boolean ? "1" : "0";
  if (const std::string* text = value.asString()) return *text;
  if (value.isNumber()) return concat(value);
  return std::nullopt;
}

}  // namespace

// Readers take `mutex` alone and for a look-up only: they never wait for the disk. Writers take `writing` first.
struct UserDefaults::State {
  explicit State(std::filesystem::path path) : file(std::move(path)) {}

  void load() EXCLUDES(mutex);
  void change(std::string_view key, std::optional<Value> value) EXCLUDES(writing, mutex);
  bool synchronize() EXCLUDES(writing, mutex);
  std::optional<Error> removeAll() EXCLUDES(writing, mutex);
  void whenSynchronized(std::function<void()> block) EXCLUDES(writing, mutex);

  const std::filesystem::path file;
  /// Grows once a change can be read, so that nobody takes the new number for what was there before.
  std::atomic<std::uint64_t> changes{1};
  std::string complaint;  ///< constant once loaded
  std::atomic<bool> keptInMemory = false;
  std::atomic<bool> complained = false;
  /// The same as `written`, to be read without waiting for a write under way.
  std::atomic<bool> isWritten = true;

 private:
  using Blocks = std::vector<std::function<void()>>;
  /// Writes the file; what waits for that is to be run once no lock is held.
  std::optional<Error> write(Blocks& ready) REQUIRES(writing) EXCLUDES(mutex);
  void tryLater() REQUIRES(writing);
  /// Whether the file still cannot be read. What was set meanwhile is to be written once it can, or is gone.
  bool staysInMemory() REQUIRES(writing);

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
    // Abandoned writes hold credentials. The first change removes them: a process that only reads must remove nothing.
    if (!std::exchange(cleared, true)) removeAbandonedWrites(file.parent_path());
    const bool stays = staysInMemory();
    {
      MutexLock lock(mutex);
      auto found = values.find(key);
      const bool same = found == values.end() ? !value : value && found->second == *value;
      if (same && written) return;
      if (!value && found != values.end()) values.erase(found);
      own.insert_or_assign(std::string(key), value.value_or(nullptr));
      if (value) values.insert_or_assign(std::string(key), std::move(*value));
      changes.fetch_add(1, std::memory_order_release);
    }
    if (stays) return;
    error = write(ready);
  }
  faultPoint("settings: written");
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
      changes.fetch_add(1, std::memory_order_release);
    }
    snapshot = values;
  }
  faultPoint("settings: to be written");
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

bool UserDefaults::State::staysInMemory() {
  std::error_code failure;
  if (keptInMemory && (readSettings(file) || (!std::filesystem::exists(file, failure) && !failure))) {
    keptInMemory = false;
    isWritten = written = false;
  }
  return keptInMemory;
}

bool UserDefaults::State::synchronize() {
  if (isWritten && !keptInMemory) return true;
  Blocks ready;
  bool done = false;
  {
    MutexLock lock(writing);
    done = !staysInMemory() && (written || !write(ready));
  }
  for (const auto& block : ready) block();
  return done;
}

std::optional<Error> UserDefaults::State::removeAll() {
  Blocks dropped;
  std::shared_ptr<Timer> stopped;
  MutexLock writeLock(writing);
  dropped.swap(waiting);
  stopped.swap(retry);
  pause = kFirstPause;
  written = true;
  isWritten = true;
  {
    MutexLock lock(mutex);
    values.clear();
    own.clear();
    changes.fetch_add(1, std::memory_order_release);
  }
  keptInMemory = false;
  return wipeFile(file);
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
  // Told only once the object has been made, because whoever receives the line may ask for it.
  State& state = *defaults->state_;
  if (!state.complaint.empty() && !state.complained.exchange(true)) NSLog(state.complaint);
  return *defaults;
}

UserDefaults::UserDefaults() : state_(new State(homeDirectory() / kSettingsFile)) { state_->load(); }

std::int64_t UserDefaults::integer(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? 0 : integerOf(*value);
}

double UserDefaults::number(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? 0 : numberOf(*value);
}

bool UserDefaults::boolean(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value != nullptr && booleanOf(*value);
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
  MutexLock lock(state_->mutex);
  const Value* value = find(state_->values, key);
  return value == nullptr ? std::nullopt : stringOf(*value);
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
bool UserDefaults::removeAll() {
  const auto error = state_->removeAll();
  if (error) NSLog("The user defaults cannot be removed: " + error->localizedDescription);
  return !error;
}

bool UserDefaults::synchronize() { return state_->synchronize(); }

void UserDefaults::whenSynchronized(std::function<void()> block) { state_->whenSynchronized(std::move(block)); }
std::uint64_t UserDefaults::changes() const { return state_->changes.load(std::memory_order_acquire); }

}  // namespace tarvo::platform

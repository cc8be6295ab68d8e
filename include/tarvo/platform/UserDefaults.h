/// @file
/// Small settings that outlive the process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/Export.h>
#include <tarvo/platform/Value.h>

namespace tarvo::platform {

/// Small settings that outlive the process, in `Library/Preferences/defaults.plist` of the home directory.
///
/// Typed reads convert as the platform documents: a missing key is 0, false or absent; "12abc" reads as 12;
/// a Boolean reads as 1 or 0; 3.9 reads as 3. Own writes are seen at once.
/// A write is durable when the call returns (temporary file, flush, rename; mode 0600). A file that cannot be
/// read as a property list is left alone, reported once in the system log, and the settings start empty in memory; what
/// was set meanwhile is added to it once it can be read, or is gone.
/// A write keeps what another process has set meanwhile, which is seen from then on.
/// Threads: any. Errors: throws nothing but std::bad_alloc; a failed write is reported in the system log and kept in
/// memory. It is made up for by the next change, by `synchronize` (the SDK calls it after each save of its store) and
/// by a timer whose pause grows from a second to five minutes.
class TARVO_API UserDefaults {
 public:
  /// The process's settings; lives as long as the process.
  static UserDefaults& standard();

  /**@{*/
  /// What is stored under the key, read as that type; `object` gives it as it is.
  std::int64_t integer(std::string_view key) const;
  double number(std::string_view key) const;
  bool boolean(std::string_view key) const;
  std::optional<std::string> string(std::string_view key) const;
  std::optional<Value> object(std::string_view key) const;
  /**@}*/

  /// Stores the value; a null one removes the key.
  void set(std::string_view key, Value value);
  /// Forgets what is stored under the key.
  void remove(std::string_view key);
  /// Forgets everything, also what is in the file, which is overwritten and removed; false, with a line in the system
  /// log, when that fails. Blocks that wait for a write are dropped.
  bool removeAll();

  /// Whether everything is in the file; what could not be written before is tried again first.
  bool synchronize();
  /// Runs the block once everything is in the file: at once if it is, else on the thread whose later write succeeds. It
  /// may run in the midst of the library's work, so it must neither wait for other work nor call the library.
  void whenSynchronized(std::function<void()> block);

  /// A number that grows with each change of any setting: while it is the same, what was read is still right. At
  /// least 1.
  std::uint64_t changes() const;

 private:
  UserDefaults();
  ~UserDefaults() = delete;
  struct State;
  State* state_;
};

}  // namespace tarvo::platform

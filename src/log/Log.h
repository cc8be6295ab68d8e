#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include <tarvo/platform/MainQueue.h>

#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"

namespace tarvo {

/// The one entry point of the SDK's log: every message reaches the console; while file logging is on and the user is
/// known it also becomes a line of the daily file, which is the body of its own later upload (docs/formats.md).
///
/// Threads: any. The console line and the day's header are written on the caller's thread, which waits for the disk
/// once a day; lines are appended on `serialQueue`. Only regular files are logs. Errors: never any; what cannot be
/// written is dropped, as are lines beyond 256 KiB that wait for the queue's thread while the system has none to give.
class Log {
 public:
  static constexpr std::int64_t kVerbose = 2, kDebug = 3, kInfo = 4, kWarning = 5, kError = 6;
  /// The value of LOGLEVEL that switches file logging off.
  static constexpr std::int64_t kOff = 10;

  /// Messages of all levels reach the console; those of levels 2 to 6 the file.
  static void debugLog(std::int64_t level, std::string_view message);

  static void debugLog(std::int64_t level, std::initializer_list<platform::Piece> parts);

  /// The parts of a message one after the other, each in its printed form.
  template <class... Parts>
  static void debug(const Parts&... parts) {
    debugLog(kDebug, {platform::Piece(parts)...});
  }
  template <class... Parts>
  static void error(const Parts&... parts) {
    debugLog(kError, {platform::Piece(parts)...});
  }

  /// 10 is off, everything else on: a switch, no threshold. The user default "tarvologlevel" replaces it at each
  /// message unless that is 0.
  static std::int64_t LOGLEVEL();
  static void setLOGLEVEL(std::int64_t level);

  /// What the names of all log files of a day begin with; the year is the week-based one.
  static std::string todaysFilePrefix();
  /// Log files of all days: what their names begin with, and their extension.
  static constexpr std::string_view kFilePrefix = "TarvoLog", kFileExtension = ".txt";
  /// Whether a log file could be called so.
  static bool isFileName(std::string_view name);

  /// Lines that this process could not put into a file: no room, no folder, no thread, or a file that has gone.
  static std::uint64_t linesDropped();
  /// What the log files of all days take. Looks at the folder.
  static std::uint64_t bytes();

  /// Where the lines are appended; what must come behind them is queued here too.
  static platform::SerialQueue& serialQueue();
};

/// For the end of most messages: "true" or "false".
inline bool mainThread() { return platform::isMainThread(); }

}  // namespace tarvo

#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileLock.h"
#include "platform/foundation/Mutex.h"
#include "platform/urlsession/BackgroundSession.h"

namespace tarvo::platform {

/// How an upload ended: a reply, an error, or both.
struct TransferOutcome {
  std::optional<int> statusCode;
  std::optional<std::string> data;
  std::optional<Error> error;
};

/// What a journal holds of one upload; without an outcome it is unfinished. The request's own body is not kept.
struct TransferRecord {
  URLSessionUploadTask task;
  std::optional<TransferOutcome> outcome;
};

/// The unfinished uploads of one background session on disk: `<identifier>.jsonl`, to which a line is added for each
/// change; it is written anew without what is over when that is most of it, and removed when nothing is left.
/// `<identifier>.lock` is held for as long as the object lives: of several processes only the first has the journal,
/// the others go without.
///
/// Threads: any. Errors: what cannot be read or written is told in the system log, and the session goes on.
class TransferJournal {
 public:
  TransferJournal(const std::filesystem::path& directory, std::string identifier);
  TransferJournal(const TransferJournal&) = delete;
  TransferJournal& operator=(const TransferJournal&) = delete;

  /// What an earlier process left, by task identifier. The first call takes it, later ones find nothing.
  std::vector<TransferRecord> takeRestored();

  // Each survives a kill of the process when it returns. What a power cut takes, unless `flush` came after it, is an
  // upload that was resumed, or the knowledge that one has ended: then it is sent again.

  void putResumed(const URLSessionUploadTask& task);
  void putEnded(std::int64_t taskIdentifier, const TransferOutcome& outcome);
  void remove(std::int64_t taskIdentifier);

  /// Forgets all uploads and removes the file, overwritten.
  void forgetAll();

  /// Waits until all that was put is on the disk.
  void flush();

 private:
  /// The lines that say all of one task.
  struct Lines {
    std::string resumed;
    std::string ended;  ///< empty until then, and when the first says it too
  };

  void read() REQUIRES(mutex_);
  /// Takes in what a line says; false if it says nothing that counts.
  bool apply(std::string_view line) REQUIRES(mutex_);
  void forget(std::int64_t taskIdentifier) REQUIRES(mutex_);
  void add(std::string_view line) REQUIRES(mutex_);
  void rewrite() REQUIRES(mutex_);
  void noteWriting(const std::optional<Error>& error) REQUIRES(mutex_);
  void tell(std::string_view what) const;

  const std::string identifier_;
  const std::filesystem::path file_;
  FileLock lock_;  ///< held while the journal is in use

  Mutex mutex_;
  std::map<std::int64_t, Lines> lines_ GUARDED_BY(mutex_);
  std::size_t liveBytes_ GUARDED_BY(mutex_) = 0;  ///< of all lines_, their ends included
  std::size_t fileBytes_ GUARDED_BY(mutex_) = 0;
  std::map<std::int64_t, TransferRecord> restored_ GUARDED_BY(mutex_);
  bool failing_ GUARDED_BY(mutex_) = false;  ///< the last write failed, and that has been told
};

/// A text as a file name, one for each text: what could mean something to the file system becomes `%XX`.
std::string fileNameOf(std::string_view text);

}  // namespace tarvo::platform

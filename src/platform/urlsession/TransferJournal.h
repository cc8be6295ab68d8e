#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileLock.h"
#include "platform/foundation/Mutex.h"
#include "platform/urlsession/TransferRecord.h"

namespace tarvo::platform {

/// The unfinished uploads of one background session on disk: `<identifier>.jsonl`, a line for each, replaced as a
/// whole. `<identifier>.lock` is held for as long as the object lives: of several processes only the first has the
/// journal, the others go without.
///
/// Threads: any. Errors: what cannot be read or written is told in the system log, and the session goes on.
class TransferJournal {
 public:
  TransferJournal(const std::filesystem::path& directory, std::string identifier);
  TransferJournal(const TransferJournal&) = delete;
  TransferJournal& operator=(const TransferJournal&) = delete;

  /// What an earlier process left, by task identifier. The first call takes it, later ones find nothing.
  std::vector<TransferRecord> takeRestored();

  /// On disk when it returns. Replaces the record of the same task.
  void put(const TransferRecord& record);
  void remove(std::int64_t taskIdentifier);

 private:
  void read() REQUIRES(mutex_);
  void write() REQUIRES(mutex_);
  void tell(std::string_view what) const;

  const std::string identifier_;
  const std::filesystem::path file_;
  FileLock lock_;  ///< held while the journal is in use

  Mutex mutex_;
  std::map<std::int64_t, std::string> lines_ GUARDED_BY(mutex_);
  std::vector<TransferRecord> restored_ GUARDED_BY(mutex_);
  bool failing_ GUARDED_BY(mutex_) = false;  ///< the last write failed, and that has been told
};

/// A text as a file name, one for each text: what could mean something to the file system becomes `%XX`.
std::string fileNameOf(std::string_view text);

}  // namespace tarvo::platform

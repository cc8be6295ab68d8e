#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "platform/foundation/Mutex.h"

namespace tarvo {

/// The engine's fields that uploads, replies and registration share. Threads: any.
class SyncState {
 public:
  /// Set by a session error and never cleared: no batch starts until the process is started anew.
  std::atomic<bool> networkManagerReceivedSessionError{false};
  /// The backend has already issued this user's identifier to this process.
  std::atomic<bool> alreadyReceivedUUID{false};

  /// Receives the user's identifier from each user check and authenticates nothing.
  std::optional<std::string> apiKey() const {
    platform::MutexLock lock(mutex_);
    return apiKey_;
  }
  void setApiKey(std::optional<std::string> key) {
    platform::MutexLock lock(mutex_);
    apiKey_ = std::move(key);
  }

 private:
  mutable platform::Mutex mutex_;
  std::optional<std::string> apiKey_ GUARDED_BY(mutex_);
};

}  // namespace tarvo

#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/urlsession/URLRequest.h"

namespace tarvo::platform {

class BackgroundSession;

/// An upload from a file that outlives the process.
struct URLSessionUploadTask {
  std::int64_t taskIdentifier = 0;
  URLRequest originalRequest;
  std::filesystem::path file;
};

/// Told on the session's own serial queue, in this order for each task: data (once, the whole body), completion;
/// after the last task of the session, that its events are finished.
class BackgroundSessionDelegate {
 public:
  virtual ~BackgroundSessionDelegate() = default;
  virtual void didReceiveData(BackgroundSession& session, const std::string& data) = 0;
  virtual void didComplete(BackgroundSession& session, const URLSessionUploadTask& task, std::optional<int> statusCode,
                           std::optional<Error> error) = 0;
  virtual void didFinishEvents(BackgroundSession& session) = 0;
};

/// How a background session is made.
struct BackgroundSessionConfiguration {
  std::string identifier;
  bool discretionary = true;
  bool shouldUseExtendedBackgroundIdleMode = false;
};

/// Transfers that go on while the application is suspended or gone. One session for each identifier in a process:
/// opening a second one gives the first, with its first delegate.
///
/// Threads: any. The delegate outlives the process's use of the session.
class BackgroundSession {
 public:
  static std::shared_ptr<BackgroundSession> open(const BackgroundSessionConfiguration& configuration,
                                                 BackgroundSessionDelegate& delegate);
  const std::string& identifier() const { return configuration_.identifier; }
  BackgroundSessionDelegate& delegate() const { return delegate_; }
  /// `<BackgroundSession: identifier>`
  std::string description() const;

 private:
  BackgroundSession(BackgroundSessionConfiguration configuration, BackgroundSessionDelegate& delegate);
  BackgroundSessionConfiguration configuration_;
  BackgroundSessionDelegate& delegate_;
};

}  // namespace tarvo::platform

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
struct TransferOutcome;

/// An upload from a file. Made by `BackgroundSession::uploadTask`.
struct URLSessionUploadTask {
  std::int64_t taskIdentifier = 0;  ///< unique among the tasks that a session's journal holds
  URLRequest originalRequest;
  std::filesystem::path file;
};

/// Told on the session's own serial queue, in this order for each task: data (once, the whole body), completion;
/// after the last task of the session, that its events are finished.
class BackgroundSessionDelegate {
 public:
  virtual ~BackgroundSessionDelegate() = default;
  virtual void didReceive(BackgroundSession& session, const std::string& data) = 0;
  virtual void didCompleteWithError(BackgroundSession& session, const URLSessionUploadTask& task,
                                    std::optional<int> statusCode, std::optional<Error> error) = 0;
  virtual void urlSessionDidFinishEvents(BackgroundSession& session) = 0;
};

/// How a background session is made. The two wishes change nothing here: transfers start as soon as they can.
struct BackgroundSessionConfiguration {
  std::string identifier;
  bool discretionary = true;
  bool shouldUseExtendedBackgroundIdleMode = false;
};

/// Uploads that outlive the process: those that have been resumed are journalled in the home directory and taken up
/// again by the next process that opens a session of the same identifier. One session for each identifier in a
/// process: opening a second one gives the first, with its first delegate.
///
/// Threads: any; the delegate is called on the session's own serial queue, with no lock held, and outlives the
/// process's use of the session.
class BackgroundSession : public std::enable_shared_from_this<BackgroundSession> {
 public:
  ~BackgroundSession();
  BackgroundSession(const BackgroundSession&) = delete;
  BackgroundSession& operator=(const BackgroundSession&) = delete;

  /// Ends all transfers of the process (`URLSession::endAll`) and forgets the tasks of all sessions, those in their
  /// journals too, which go. None may be resumed meanwhile; never from inside a call of a delegate.
  static void forgetAll();

  /// Touches no file: a process that only looks leaves the journal to the one that owns the transfers.
  static std::shared_ptr<BackgroundSession> open(const BackgroundSessionConfiguration& configuration,
                                                 BackgroundSessionDelegate& delegate);

  /// The delegate is ready: transfers and outcomes from the journal go on. A second call does nothing. What the
  /// journal holds rests until then, also when an upload has been made before.
  void deliverEvents();

  /// A suspended upload, whose body is the file alone. Nothing of it is kept before `resume`.
  URLSessionUploadTask uploadTask(URLRequest request, std::filesystem::path file);
  /// Whether there is a task for the file, of this process or an earlier one, that has not ended.
  bool hasTaskFor(const std::filesystem::path& file);
  /// Journals the task and starts it. The file is opened, and its length taken, when the transfer begins; a file that
  /// cannot be read ends the task with an error, as does a failed transfer; none is repeated. Resuming a task twice
  /// does nothing. A task survives a kill of the process from here on, and a power cut moments later.
  void resume(const URLSessionUploadTask& task);

  /// Hands over the tasks that have not ended, on the session's queue.
  void getAllTasks(std::function<void(std::vector<URLSessionUploadTask>)> completion);
  /// Has the delegate told that the events are finished also when no task is left; otherwise the end of the last
  /// one tells it, as always.
  void finishEvents();

  const std::string& identifier() const { return configuration_.identifier; }
  /// `<BackgroundSession: identifier>`
  std::string description() const;

 private:
  struct State;
  struct Job;
  BackgroundSession(BackgroundSessionConfiguration configuration, BackgroundSessionDelegate& delegate);
  void openJournal();
  void forget();
  void start(Job job);
  void startWaiting();
  void deliver(const URLSessionUploadTask& task, const TransferOutcome& outcome);

  const BackgroundSessionConfiguration configuration_;
  BackgroundSessionDelegate& delegate_;
  std::unique_ptr<State> state_;
};

}  // namespace tarvo::platform

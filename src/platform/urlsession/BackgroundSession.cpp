#include "platform/urlsession/BackgroundSession.h"

#include <atomic>
#include <deque>
#include <map>
#include <set>
#include <utility>

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/HomeErasure.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "platform/urlsession/URLSession.h"
#include "platform/urlsession/UploadFile.h"

namespace tarvo::platform {
namespace {

/// Uploads at once. Fewer than the transfers that the process has at once, so that files which go nowhere never hold up
/// everything else.
constexpr int kMostAtOnce = 4;

/// The sessions of this process by identifier. They are never closed.
struct Registry {
  Mutex mutex;
  std::map<std::string, std::shared_ptr<BackgroundSession>> sessions GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry* registry = new Registry;
  return *registry;
}

}  // namespace

/// An upload that is to run, counted as activity until its delegate calls are over.
struct BackgroundSession::Job {
  URLSessionUploadTask task;
  std::shared_ptr<WorkInFlight::Token> activity = std::make_shared<WorkInFlight::Token>();
};

struct BackgroundSession::State {
  explicit State(const std::string& identifier) : queue(concat("tarvo.backgroundsession.", identifier)) {}

  SerialQueue queue;
  std::optional<TransferJournal> journal;  ///< set once, by `openJournal`

  Mutex mutex;
  std::map<std::int64_t, URLSessionUploadTask> tasks GUARDED_BY(mutex);  ///< resumed and not ended, restored ones too
  std::vector<TransferRecord> restored GUARDED_BY(mutex);                ///< until `deliverEvents`
  std::set<std::int64_t> suspended GUARDED_BY(mutex);
  std::multiset<std::filesystem::path> files GUARDED_BY(mutex);  ///< of the tasks above, resumed or not
  std::int64_t lastIdentifier GUARDED_BY(mutex) = 0;
  std::deque<Job> waiting GUARDED_BY(mutex);
  int running GUARDED_BY(mutex) = 0;

  std::atomic<bool> isToBeFlushed = false;  ///< a block that flushes the journal waits
};

std::shared_ptr<BackgroundSession> BackgroundSession::open(const BackgroundSessionConfiguration& configuration,
                                                           BackgroundSessionDelegate& delegate) {
  std::shared_ptr<BackgroundSession> session;
  {
    MutexLock lock(registry().mutex);
    auto& slot = registry().sessions[configuration.identifier];
    if (!slot) return slot = std::shared_ptr<BackgroundSession>(new BackgroundSession(configuration, delegate));
    session = slot;
  }
  NSLog(concat("A background URLSession with identifier ", configuration.identifier, " already exists!"));
  return session;
}

std::string BackgroundSession::description() const {
  return concat("<BackgroundSession: ", configuration_.identifier, ">");
}

BackgroundSession::BackgroundSession(BackgroundSessionConfiguration configuration, BackgroundSessionDelegate& delegate)
    : configuration_(std::move(configuration)),
      delegate_(delegate),
      state_(std::make_unique<State>(configuration_.identifier)) {}

BackgroundSession::~BackgroundSession() = default;

void BackgroundSession::openJournal() {
  MutexLock lock(state_->mutex);
  if (state_->journal) return;
  state_->journal.emplace(homeDirectory() / kTransfersFolder, configuration_.identifier);
  state_->restored = state_->journal->takeRestored();
  for (const TransferRecord& record : state_->restored) {
    state_->tasks.emplace(record.task.taskIdentifier, record.task);
    state_->files.insert(record.task.file);
  }
}

void BackgroundSession::forgetAll() {
  std::vector<std::shared_ptr<BackgroundSession>> sessions;
  {
    MutexLock lock(registry().mutex);
    for (const auto& [identifier, session] : registry().sessions) sessions.push_back(session);
  }
  // Else the end of one upload would begin the next.
  for (const auto& session : sessions) {
    std::deque<Job> dropped;  // goes after the lock
    MutexLock lock(session->state_->mutex);
    session->state_->waiting.swap(dropped);
  }
  URLSession::shared().endAll();
  for (const auto& session : sessions) session->forget();
}

void BackgroundSession::forget() {
  state_->queue.sync([] {});  // outcomes that are being told
  std::deque<Job> waiting;    // goes after the lock
  MutexLock lock(state_->mutex);
  state_->tasks.clear();
  state_->restored.clear();
  state_->suspended.clear();
  state_->files.clear();
  state_->waiting.swap(waiting);
  state_->running = 0;
  if (state_->journal) state_->journal->forgetAll();
}

void BackgroundSession::deliverEvents() {
  openJournal();
  std::vector<TransferRecord> records;
  {
    MutexLock lock(state_->mutex);
    records.swap(state_->restored);
  }
  for (TransferRecord& record : records) {
    if (record.outcome)
      state_->queue.async(
          [self = shared_from_this(), record = std::move(record)] { self->deliver(record.task, *record.outcome); });
    else
      start({std::move(record.task)});
  }
}

URLSessionUploadTask BackgroundSession::uploadTask(URLRequest request, std::filesystem::path file) {
  request.httpBody.reset();
  file = absolutePath(std::move(file));
  openJournal();  // which names are taken
  MutexLock lock(state_->mutex);
  do {
    ++state_->lastIdentifier;
  } while (state_->tasks.contains(state_->lastIdentifier));
  state_->suspended.insert(state_->lastIdentifier);
  state_->files.insert(file);
  return {state_->lastIdentifier, std::move(request), std::move(file)};
}

void BackgroundSession::resume(const URLSessionUploadTask& task) {
  Job job{task};
  {
    MutexLock lock(state_->mutex);
    if (state_->suspended.erase(task.taskIdentifier) == 0) return;
    state_->tasks.emplace(task.taskIdentifier, task);
  }
  state_->journal->putResumed(task);
  faultPoint("log upload: told in the journal");
  if (!state_->isToBeFlushed.exchange(true)) {
    state_->queue.async([self = shared_from_this()] {
      self->state_->isToBeFlushed = false;
      self->state_->journal->flush();
    });
  }
  start(std::move(job));
}

bool BackgroundSession::hasTaskFor(const std::filesystem::path& file) {
  openJournal();
  MutexLock lock(state_->mutex);
  return state_->files.contains(absolutePath(file));
}

void BackgroundSession::getAllTasks(std::function<void(std::vector<URLSessionUploadTask>)> completion) {
  openJournal();
  state_->queue.async([self = shared_from_this(), completion = std::move(completion)] {
    std::vector<URLSessionUploadTask> tasks;
    {
      MutexLock lock(self->state_->mutex);
      for (const auto& [identifier, task] : self->state_->tasks) tasks.push_back(task);
    }
    completion(std::move(tasks));
  });
}

void BackgroundSession::finishEvents() {
  openJournal();
  {
    MutexLock lock(state_->mutex);
    if (!state_->tasks.empty()) return;
  }
  state_->queue.async([self = shared_from_this()] { self->delegate_.urlSessionDidFinishEvents(*self); });
}

void BackgroundSession::start(Job job) {
  {
    MutexLock lock(state_->mutex);
    state_->waiting.push_back(std::move(job));
  }
  startWaiting();
}

void BackgroundSession::startWaiting() {
  while (true) {
    std::optional<Job> job;
    {
      MutexLock lock(state_->mutex);
      if (state_->waiting.empty() || state_->running == kMostAtOnce) return;
      ++state_->running;
      job = std::move(state_->waiting.front());
      state_->waiting.pop_front();
    }
    const URLSessionUploadTask& task = job->task;
    faultPoint("upload");
    auto ended = [self = shared_from_this(), job = *job](std::optional<std::string> data,
                                                         std::optional<HTTPURLResponse> response,
                                                         std::optional<Error> error) {
      TransferRecord record{job.task, TransferOutcome{{}, std::move(data), std::move(error)}};
      if (response) record.outcome->statusCode = response->statusCode;
      // First, so that a reply which the delegate may have seen is never asked for again.
      self->state_->journal->putEnded(record.task.taskIdentifier, *record.outcome);
      faultPoint("log upload: end told in the journal");
      {
        MutexLock lock(self->state_->mutex);
        --self->state_->running;
      }
      self->startWaiting();
      self->deliver(record.task, *record.outcome);
    };
    URLSession::shared().uploadTask(task.originalRequest, task.file, state_->queue, std::move(ended))->resume();
  }
}

void BackgroundSession::deliver(const URLSessionUploadTask& task, const TransferOutcome& outcome) {
  if (outcome.data) delegate_.didReceive(*this, *outcome.data);
  faultPoint("log upload: reply delivered");
  delegate_.didCompleteWithError(*this, task, outcome.statusCode, outcome.error);
  state_->journal->remove(task.taskIdentifier);
  faultPoint("log upload: over");
  bool wasLast = false;
  {
    MutexLock lock(state_->mutex);
    state_->tasks.erase(task.taskIdentifier);
    if (const auto file = state_->files.find(task.file); file != state_->files.end()) state_->files.erase(file);
    wasLast = state_->tasks.empty();
  }
  if (wasLast) delegate_.urlSessionDidFinishEvents(*this);
}

}  // namespace tarvo::platform

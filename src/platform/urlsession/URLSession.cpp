#include "platform/urlsession/URLSession.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/urlsession/Transfer.h"

namespace tarvo::platform {
namespace {

/// Transfers at once, and so handles and connections that are kept. A burst of requests must not become a burst of
/// connections, which small servers drop.
constexpr std::size_t kMostAtOnce = 8;

/// Signals belong to the host's threads; and a peer that closes a TLS connection must not end the process.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

struct URLSession::State {
  class Task;

  State();

  void submit(std::shared_ptr<Transfer> transfer);
  /// Ends the thread, and with it what is in flight.
  void stop();

  // On the session's own thread.
  void run();
  void startWaiting();
  void startHop(CURL* handle, std::shared_ptr<Transfer> transfer);
  void hopEnded(CURL* handle, CURLcode result);
  void timeOutSilent();
  int millisecondsToNextDeadline() const;
  void putBack(CURL* handle);
  void finish(std::shared_ptr<Transfer> transfer);

  CURLM* const multi;
  SerialQueue completions{"tarvo.urlsession.completions"};
  const pid_t process = getpid();
  std::optional<std::string> certificateFile;

  Mutex mutex;
  std::vector<std::shared_ptr<Transfer>> incoming GUARDED_BY(mutex);
  bool stopping GUARDED_BY(mutex) = false;
  std::thread thread GUARDED_BY(mutex);

  // Of the session's own thread.
  std::deque<std::shared_ptr<Transfer>> waiting;
  std::unordered_map<CURL*, std::shared_ptr<Transfer>> inFlight;
  std::vector<CURL*> idleHandles;
};

class URLSession::State::Task final : public URLSessionDataTask {
 public:
  Task(State& session, std::shared_ptr<Transfer> transfer) : session_(session), transfer_(std::move(transfer)) {}

  void resume() override {
    std::shared_ptr<Transfer> transfer;
    {
      MutexLock lock(mutex_);
      transfer.swap(transfer_);
    }
    if (transfer) session_.submit(std::move(transfer));
  }

 private:
  State& session_;
  Mutex mutex_;
  std::shared_ptr<Transfer> transfer_ GUARDED_BY(mutex_);  ///< until the first `resume`
};

URLSession::State::State()
    : multi([] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("the HTTP library cannot be initialised");
        CURLM* made = curl_multi_init();
        if (made == nullptr) fatalError("the HTTP library cannot make a session");
        return made;
      }()) {
  curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, long{kMostAtOnce});
  if (const char* file = std::getenv("SSL_CERT_FILE"); file != nullptr && *file != '\0') certificateFile = file;
}

void URLSession::State::submit(std::shared_ptr<Transfer> transfer) {
  transfer->begin();
  {
    MutexLock lock(mutex);
    incoming.push_back(std::move(transfer));
    if (!thread.joinable() && !stopping) {
      const SignalsBlocked blocked;
      thread = std::thread([this] { run(); });
    }
  }
  curl_multi_wakeup(multi);
}

void URLSession::State::stop() {
  if (getpid() != process) return;  // a forked child has no such thread
  std::thread ending;
  {
    MutexLock lock(mutex);
    stopping = true;
    ending.swap(thread);
  }
  if (!ending.joinable()) return;
  curl_multi_wakeup(multi);
  ending.join();
}

void URLSession::State::run() {
  while (true) {
    {
      MutexLock lock(mutex);
      if (stopping) return;
      std::move(incoming.begin(), incoming.end(), std::back_inserter(waiting));
      incoming.clear();
    }
    int running = 0;
    curl_multi_perform(multi, &running);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &left))
      if (message->msg == CURLMSG_DONE) hopEnded(message->easy_handle, message->data.result);
    timeOutSilent();
    startWaiting();
    curl_multi_poll(multi, nullptr, 0, millisecondsToNextDeadline(), nullptr);
  }
}

void URLSession::State::startWaiting() {
  while (!waiting.empty() && inFlight.size() < kMostAtOnce) {
    if (idleHandles.empty()) idleHandles.push_back(curl_easy_init());
    CURL* handle = idleHandles.back();
    if (handle == nullptr) fatalError("out of memory for a transfer");
    idleHandles.pop_back();
    std::shared_ptr<Transfer> transfer = std::move(waiting.front());
    waiting.pop_front();
    startHop(handle, std::move(transfer));
  }
}

void URLSession::State::startHop(CURL* handle, std::shared_ptr<Transfer> transfer) {
  if (!transfer->prepare(handle, certificateFile)) {
    putBack(handle);
    finish(std::move(transfer));
    return;
  }
  inFlight.emplace(handle, std::move(transfer));
  if (curl_multi_add_handle(multi, handle) != CURLM_OK) hopEnded(handle, CURLE_FAILED_INIT);
}

void URLSession::State::hopEnded(CURL* handle, CURLcode result) {
  const auto found = inFlight.find(handle);
  std::shared_ptr<Transfer> transfer = std::move(found->second);
  inFlight.erase(found);
  const bool goesOn = transfer->nextHopAfter(handle, result);
  curl_multi_remove_handle(multi, handle);
  if (goesOn) {
    startHop(handle, std::move(transfer));
  } else {
    putBack(handle);
    finish(std::move(transfer));
  }
}

void URLSession::State::timeOutSilent() {
  const auto now = std::chrono::steady_clock::now();
  for (auto it = inFlight.begin(); it != inFlight.end();) {
    const auto [handle, transfer] = *it;
    if (transfer->deadline() > now) {
      ++it;
      continue;
    }
    it = inFlight.erase(it);
    transfer->timeOut();
    curl_multi_remove_handle(multi, handle);
    putBack(handle);
    finish(transfer);
  }
}

int URLSession::State::millisecondsToNextDeadline() const {
  auto next = Transfer::Instant::max();
  for (const auto& [handle, transfer] : inFlight) next = std::min(next, transfer->deadline());
  if (next == Transfer::Instant::max()) return INT_MAX;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

void URLSession::State::putBack(CURL* handle) {
  // Nothing of the last request stays behind, neither pointers to it nor its large buffer.
  curl_easy_reset(handle);
  curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, long{16384});
  idleHandles.push_back(handle);
}

void URLSession::State::finish(std::shared_ptr<Transfer> transfer) {
  SerialQueue& queue = transfer->completions();
  queue.async([transfer = std::move(transfer)] { transfer->complete(); });
}

URLSession& URLSession::shared() {
  static URLSession* session = new URLSession;
  return *session;
}

URLSession::URLSession() : state_(new State) {
  // The TLS library tears itself down when the process exits. This is registered later and so runs before it:
  // the thread has left the library by then.
  std::atexit([] { shared().state_->stop(); });
}

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request, DataTaskCompletion completion) {
  return std::make_shared<State::Task>(*state_, std::make_shared<Transfer>(std::move(request), std::nullopt,
                                                                           state_->completions, std::move(completion)));
}

std::shared_ptr<URLSessionDataTask> URLSession::uploadTask(URLRequest request, std::filesystem::path file,
                                                           SerialQueue& completions, DataTaskCompletion completion) {
  return std::make_shared<State::Task>(
      *state_, std::make_shared<Transfer>(std::move(request), std::move(file), completions, std::move(completion)));
}

}  // namespace tarvo::platform

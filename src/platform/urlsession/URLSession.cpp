#include "platform/urlsession/URLSession.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/LazyThread.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/System.h"
#include "platform/urlsession/Transfer.h"

namespace tarvo::platform {
namespace {

using namespace std::chrono_literals;

/// Transfers at once, and so handles and connections that are kept. A burst of requests must not become a burst of
/// connections, which small servers drop.
constexpr std::size_t kMostAtOnce = 8;
/// A transfer that takes longer no longer counts among those at once, so that others are started.
constexpr auto kTurn = 3s;
/// Transfers in flight altogether. To start one more, the longest that has outlasted its time-out is ended, though it
/// was never silent: a server that answers byte by byte would otherwise hold up, or pile up, everything else.
constexpr std::size_t kMostConnections = 32;
/// Copies of one request in flight or waiting (see URLRequest::replacesOlder).
constexpr std::size_t kMostCopies = 2;
/// How long the session's thread sleeps when nothing can wake it.
constexpr auto kDeafSleep = 200ms;
/// How long the end of the process waits for the session's thread. It needs a moment, unless a file system hangs.
constexpr Seconds kMostExitWait{4};

/// What `setTransferOptions` sets.
struct Options {
  Mutex mutex;
  TransferOptions values GUARDED_BY(mutex);
  bool inUse GUARDED_BY(mutex) = false;
};

Options& options() {
  static auto* options = new Options;
  return *options;
}

/// From here on they stay as they are.
TransferOptions takeOptions() {
  MutexLock lock(options().mutex);
  options().inUse = true;
  return options().values;
}

}  // namespace

struct URLSession::State {
  class Task;

  State();

  void submit(std::shared_ptr<Transfer> transfer);
  /// Ends the thread, and with it what is in flight.
  void stop();
  void endAll();

  // On the session's own thread.
  void run();
  void takeIncoming();
  void endOldestCopy(const Transfer& newest);
  /// Makes room; false while none has lasted too long.
  bool endLongestLasting(Transfer::Instant now);
  void startWaiting();
  std::size_t turnsTaken(Transfer::Instant now) const;
  void startHop(CURL* handle, std::shared_ptr<Transfer> transfer);
  void hopEnded(CURL* handle, CURLcode result);
  void timeOutSilent();
  void sleep(int wakeUpDescriptor);
  std::chrono::milliseconds untilNextDeadline() const;
  void release(CURL* handle);
  void putBack(CURL* handle);
  void finish(std::shared_ptr<Transfer> transfer);
  /// Lets it go on the queue on which its completion, which is not called, would have been.
  static void drop(std::shared_ptr<Transfer> transfer);
  void dropAll();

  CURLM* const multi;
  SerialQueue completions{"tarvo.urlsession.completions"};
  const pid_t process = getpid();
  const TransferOptions options = takeOptions();
  std::optional<std::string> environmentCaFile;

  Mutex mutex;
  std::vector<std::shared_ptr<Transfer>> incoming GUARDED_BY(mutex);
  bool stopping GUARDED_BY(mutex) = false;
  bool endsAll GUARDED_BY(mutex) = false;
  Condition changed;   ///< for a thread that cannot sleep otherwise
  Condition allEnded;  ///< `endsAll` is false again
  WakeUp wakeUp;
  LazyThread thread{"transfers", [this] { run(); }};

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
  if (const char* file = trustedEnvironment("SSL_CERT_FILE"); file != nullptr && *file != '\0')
    environmentCaFile = file;
}

void URLSession::State::submit(std::shared_ptr<Transfer> transfer) {
  transfer->begin();
  faultPoint("transfer");
  {
    MutexLock lock(mutex);
    incoming.push_back(std::move(transfer));
    if (!stopping) thread.start();
  }
  changed.notify_one();
  wakeUp.signal();
  LazyThread::startMissing();
}

void URLSession::State::stop() {
  if (getpid() != process) return;  // a forked child has no such thread
  faultPoint("exit: before transfers stop");
  {
    MutexLock lock(mutex);
    stopping = true;
  }
  changed.notify_one();
  wakeUp.signal();
  if (!thread.join(kMostExitWait)) Transfer::keepOut();
  faultPoint("exit: transfers stopped");
}

void URLSession::State::endAll() {
  if (getpid() != process) return;
  {
    MutexLock lock(mutex);
    for (auto& transfer : std::exchange(incoming, {})) drop(std::move(transfer));
    endsAll = thread.started() && !stopping;
  }
  changed.notify_one();
  wakeUp.signal();
  const auto end = std::chrono::steady_clock::now() + boundedRealTime(kMostExitWait);
  MutexLock lock(mutex);
  while (endsAll && std::chrono::steady_clock::now() < end) allEnded.wait_until(mutex, end);
}

void URLSession::State::drop(std::shared_ptr<Transfer> transfer) {
  SerialQueue& queue = transfer->completions();
  queue.async([transfer = std::move(transfer)] {});
}

void URLSession::State::dropAll() {
  for (auto& transfer : std::exchange(waiting, {})) drop(std::move(transfer));
  while (!inFlight.empty()) {
    drop(inFlight.begin()->second);
    release(inFlight.begin()->first);
  }
}

void URLSession::State::run() {
  while (true) {
    const int wakeUpDescriptor = wakeUp.descriptor();  // before the look at what has come
    bool drops = false;
    {
      MutexLock lock(mutex);
      if (stopping) break;
      drops = endsAll;
    }
    if (drops) {
      dropAll();
      MutexLock lock(mutex);
      endsAll = false;
      allEnded.notify_all();
    }
    takeIncoming();
    int running = 0;
    curl_multi_perform(multi, &running);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &left))
      if (message->msg == CURLMSG_DONE) hopEnded(message->easy_handle, message->data.result);
    timeOutSilent();
    startWaiting();
    sleep(wakeUpDescriptor);
  }
  Transfer::stayOutIfKeptOut();
}

void URLSession::State::takeIncoming() {
  std::vector<std::shared_ptr<Transfer>> arrived;
  {
    MutexLock lock(mutex);
    arrived.swap(incoming);
  }
  for (auto& transfer : arrived) {
    if (transfer->replacesOlder()) endOldestCopy(*transfer);
    waiting.push_back(std::move(transfer));
  }
}

void URLSession::State::endOldestCopy(const Transfer& newest) {
  const auto isCopy = [&newest, now = std::chrono::steady_clock::now()](const Transfer& other) {
    return newest.replaces(other, now);
  };
  std::size_t copies = 0;
  CURL* oldest = nullptr;
  for (const auto& [handle, transfer] : inFlight) {
    if (!isCopy(*transfer)) continue;
    ++copies;
    if (oldest == nullptr || transfer->began() < inFlight[oldest]->began()) oldest = handle;
  }
  auto firstWaiting = waiting.end();
  for (auto it = waiting.begin(); it != waiting.end(); ++it) {
    if (!isCopy(**it)) continue;
    ++copies;
    if (firstWaiting == waiting.end()) firstWaiting = it;
  }
  if (copies < kMostCopies) return;

  std::shared_ptr<Transfer> ended;
  if (oldest != nullptr) {
    ended = std::move(inFlight[oldest]);
    release(oldest);
  } else {
    ended = std::move(*firstWaiting);
    waiting.erase(firstWaiting);
  }
  drop(std::move(ended));
}

std::size_t URLSession::State::turnsTaken(Transfer::Instant now) const {
  return static_cast<std::size_t>(std::count_if(
      inFlight.begin(), inFlight.end(), [now](const auto& entry) { return entry.second->turnBegan() + kTurn > now; }));
}

void URLSession::State::startWaiting() {
  if (waiting.empty()) return;
  const auto now = std::chrono::steady_clock::now();
  while (!waiting.empty() && turnsTaken(now) < kMostAtOnce) {
    if (inFlight.size() >= kMostConnections && !endLongestLasting(now)) return;
    if (idleHandles.empty()) idleHandles.push_back(curl_easy_init());
    CURL* handle = idleHandles.back();
    if (handle == nullptr) fatalError("out of memory for a transfer");
    idleHandles.pop_back();
    std::shared_ptr<Transfer> transfer = std::move(waiting.front());
    waiting.pop_front();
    transfer->beginTurn();
    startHop(handle, std::move(transfer));
  }
}

bool URLSession::State::endLongestLasting(Transfer::Instant now) {
  auto longest = inFlight.end();
  for (auto it = inFlight.begin(); it != inFlight.end(); ++it) {
    // There are few that replace each other; and to their callers an error would be an answer.
    if (it->second->replacesOlder() || it->second->patienceEnds() > now) continue;
    if (longest == inFlight.end() || it->second->turnBegan() < longest->second->turnBegan()) longest = it;
  }
  if (longest == inFlight.end()) return false;
  std::shared_ptr<Transfer> transfer = longest->second;
  transfer->timeOut();
  release(longest->first);
  finish(std::move(transfer));
  return true;
}

void URLSession::State::startHop(CURL* handle, std::shared_ptr<Transfer> transfer) {
  if (!transfer->prepare(handle, options, environmentCaFile)) {
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
    const auto [handle, transfer] = *it++;
    if (transfer->deadline() > now) continue;
    transfer->timeOut();
    release(handle);
    finish(transfer);
  }
}

void URLSession::State::sleep(int wakeUpDescriptor) {
  const bool deaf = wakeUpDescriptor < 0;
  auto span = untilNextDeadline();
  if (deaf) span = std::min<std::chrono::milliseconds>(span, kDeafSleep);
  curl_waitfd wakeUpCall{wakeUpDescriptor, CURL_WAIT_POLLIN, 0};
  const int milliseconds = static_cast<int>(std::clamp<std::int64_t>(span.count(), 0, INT_MAX));
  if (curl_multi_poll(multi, deaf ? nullptr : &wakeUpCall, deaf ? 0 : 1, milliseconds, nullptr) != CURLM_OK) {
    MutexLock lock(mutex);
    if (incoming.empty() && !stopping) changed.wait_for(mutex, kDeafSleep);
  }
  if (wakeUpCall.revents != 0) wakeUp.clear();
}

std::chrono::milliseconds URLSession::State::untilNextDeadline() const {
  const auto now = std::chrono::steady_clock::now();
  auto next = Transfer::Instant::max();
  for (const auto& [handle, transfer] : inFlight) {
    next = std::min(next, transfer->deadline());
    if (waiting.empty()) continue;
    for (const auto givesWay : {transfer->turnBegan() + kTurn, transfer->patienceEnds()})
      if (givesWay > now) next = std::min(next, givesWay);
  }
  if (next == Transfer::Instant::max()) return std::chrono::milliseconds::max();
  return std::chrono::ceil<std::chrono::milliseconds>(next - now);
}

/// Takes a transfer out of curl's hands before its end.
void URLSession::State::release(CURL* handle) {
  curl_multi_remove_handle(multi, handle);  // tells of progress once more
  putBack(handle);
  inFlight.erase(handle);
}

void URLSession::State::putBack(CURL* handle) {
  if (idleHandles.size() >= kMostAtOnce) return curl_easy_cleanup(handle);
  // Nothing of the last request stays behind, neither pointers to it nor its large buffer.
  curl_easy_reset(handle);
  curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, long{16384});
  idleHandles.push_back(handle);
}

void URLSession::State::finish(std::shared_ptr<Transfer> transfer) {
  SerialQueue& queue = transfer->completions();
  faultPoint("answer");
  queue.async([transfer = std::move(transfer)] { transfer->complete(); });
}

bool setTransferOptions(TransferOptions chosen) {
  for (auto* file : {&chosen.caFile, &chosen.clientCertificateFile, &chosen.clientKeyFile})
    if (!file->empty()) *file = absolutePath(*file);
  MutexLock lock(options().mutex);
  if (options().inUse) return options().values == chosen;
  options().values = std::move(chosen);
  return true;
}

TransferOptions transferOptions() {
  MutexLock lock(options().mutex);
  return options().values;
}

std::string hostToConnectTo(std::string_view urlOrName) {
  std::string host = hostOf(urlOrName);
  const std::string proxy = transferOptions().proxy;
  if (proxy.empty() || isLoopbackHost(host)) return host;
  return hostOf(proxy.find("://") == proxy.npos ? "http://" + proxy : proxy);
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

void URLSession::endAll() {
  state_->endAll();
  state_->completions.sync([] {});
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

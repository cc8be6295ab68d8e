#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <tarvo/platform/TransferOptions.h>

#include "platform/urlsession/URLRequest.h"

namespace tarvo::platform {

class SerialQueue;

/// Data, response and error can be present together: a status that arrived before the transfer broke is delivered
/// beside the error. An empty body is no data.
using DataTaskCompletion = std::function<void(std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                                              std::optional<Error> error)>;

/// One transfer. Suspended until `resume`; a second `resume` does nothing. Threads: any.
class URLSessionDataTask {
 public:
  virtual ~URLSessionDataTask() = default;
  virtual void resume() = 0;
};

/// The session that the whole process shares: no cache, no cookies, certificates verified, TLS 1.2 at least, bodies of
/// replies up to 32 MiB, proxies of the environment except for loopback. A file named by SSL_CERT_FILE takes the place
/// of the system's certificates. What the host sets as `TransferOptions` goes before these.
///
/// Redirects are followed, at most 20, and Authorization is dropped on every one; 301, 302 and 303 turn a POST into a
/// GET. A redirect from https to plain http fails the transfer, unless both hosts are this machine. A redirect that
/// would take a body to another host is not followed: its own status is the answer.
///
/// A request whose kept connection dies before the first byte of a reply is sent once more, as HTTP allows, over a
/// connection made for it: the server may then see it twice while the caller is told once. It is never sent a third
/// time.
///
/// Eight transfers run at once; others wait, and their time-out begins when they start. A transfer that has lasted
/// three seconds goes on beside those eight, so that a slow server holds nobody up. There are never more than 32: to
/// start another then, the transfer that has lasted longest is timed out, if it has lasted longer than its time-out.
///
/// Threads: any. One thread of its own drives the transfers; completions run one at a time on a serial queue (of the
/// session, or of the upload), never inside the call that starts the task, and exactly once for each resumed task; that
/// of a replaced task is not called (see URLRequest). While the system has no thread or no descriptor to give,
/// transfers wait. When the process ends, transfers in flight end without completion. That takes a moment, or four
/// seconds if the thread hangs in a file system that does not answer.
class URLSession {
 public:
  static URLSession& shared();
  std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, DataTaskCompletion completion);
  /// The body is the file, streamed: opened, and its length taken, when the transfer begins. One that cannot be read
  /// or shrinks meanwhile ends the task with an error. The queue outlives the task.
  std::shared_ptr<URLSessionDataTask> uploadTask(URLRequest request, std::filesystem::path file,
                                                 SerialQueue& completions, DataTaskCompletion completion);

  /// Ends all transfers without their completions; returns once they have ended and none of the completions runs any
  /// more. Never from inside one.
  void endAll();

 private:
  URLSession();
  struct State;
  State* state_;
};

/// What the host has set. Threads: any.
TransferOptions transferOptions();
/// The host that a transfer to that URL or host connects to: the proxy's, if the host has set one. Threads: any.
std::string hostToConnectTo(std::string_view urlOrName);

}  // namespace tarvo::platform

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
/// GET. None leads from https to plain http, but on this machine; and one that would take a body to another host is not
/// followed: its own status is the answer.
///
/// A request whose kept connection dies before the first byte of a reply is sent once more, as HTTP allows, over a
/// connection made for it: the server may then see it twice while the caller is told once. It is never sent a third
/// time.
///
/// Eight transfers run at once; others wait, and their time-out begins when they start. One that has lasted three
/// seconds no longer keeps others waiting. There are 32 at most: for one more, the longest of those that have lasted
/// more than their time-out has timed out, though it was never silent.
///
/// Threads: any. One thread of its own drives the transfers; completions run one at a time on a serial queue (of the
/// session, or of the upload), never inside the call that starts the task, exactly once for each resumed task, but for
/// one that was replaced (see URLRequest). While the system has no thread or no descriptor to give, transfers wait, or
/// start late.
/// When the process ends, transfers in flight end without completion. That takes a moment; four seconds if the thread
/// hangs, in a file system that does not answer.
class URLSession {
 public:
  static URLSession& shared();
  std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, DataTaskCompletion completion);
  /// The body is the file, streamed: opened, and its length taken, when the transfer begins. One that cannot be read
  /// or shrinks meanwhile ends the task with an error. The queue outlives the task.
  std::shared_ptr<URLSessionDataTask> uploadTask(URLRequest request, std::filesystem::path file,
                                                 SerialQueue& completions, DataTaskCompletion completion);

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

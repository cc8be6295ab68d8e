#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/URLSession.h"
#include "platform/urlsession/UploadFile.h"

namespace tarvo::platform {

struct CurlListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlList = std::unique_ptr<curl_slist, CurlListFree>;

/// One request from its start to its completion: dresses a curl handle for each hop, collects the reply, decides
/// about redirects.
///
/// Threads: one at a time. It is handed from the starting thread to the session's, and from there to the completion
/// queue. Owns request, reply and completion; the handles belong to the session, the queue outlives it. Errors end up
/// in the completion.
class Transfer {
 public:
  using Instant = std::chrono::steady_clock::time_point;

  /// With a body file the body of the request does not count.
  Transfer(URLRequest request, std::optional<std::filesystem::path> bodyFile, SerialQueue& completions,
           DataTaskCompletion completion);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Counts as activity from here until the object is gone.
  void begin();
  Instant began() const { return start_; }
  /// Its turn has come: hops follow.
  void beginTurn();
  Instant turnBegan() const { return turn_; }
  /// A time-out after its turn began. Who is still in flight then has a reply that comes drop by drop.
  Instant patienceEnds() const;

  bool replacesOlder() const { return request_.replacesOlder; }
  /// Whether `other` is an older copy of this one (see URLRequest::replacesOlder).
  bool replaces(const Transfer& other, Instant now) const;

  /// Sets the handle up for the current hop; it must not be in use. Answers whether the hop can start: if not, the
  /// outcome is decided.
  /// `environmentCaFile` takes the place of the system's certificates where the options name none.
  bool prepare(CURL* handle, const TransferOptions& options, const std::optional<std::string>& environmentCaFile);

  /// Takes a hop's end. Answers whether another hop follows, to be prepared; else the outcome is decided.
  bool nextHopAfter(CURL* handle, CURLcode result);

  /// When silence has lasted too long, or the whole transfer has.
  Instant deadline() const;
  void timeOut();

  /// The process ends and waits no longer for the thread that drives transfers: from here on that thread never goes on
  /// inside the transfer library, whose TLS is being torn down. Any thread.
  static void keepOut();
  /// Does not return to a thread that is kept out.
  static void stayOutIfKeptOut();

  SerialQueue& completions() const { return completions_; }
  /// Hands the outcome over. Once only, on the completion queue.
  void complete();

 private:
  bool follow(const std::string& location);
  void setBody(CURL* handle);
  void applyOptions(CURL* handle, const TransferOptions& options) const;
  CurlList headerList() const;
  void fail(int code, std::string_view reason = {});
  void touch();
  /// Whether the request may go out over the connection that curl has found for it (see URLSession on sending again).
  bool maySend();

  bool takeHeader(std::string_view line);
  bool takeBody(std::string_view bytes);
  static int onBytes(CURL* handle, curl_infotype kind, char* bytes, std::size_t count, void* total);
  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self);
  static int onRequest(void* self, char* peer, char* own, int peerPort, int ownPort);
  static int onSeek(void* self, curl_off_t offset, int origin);
  static int onProgress(void* self, curl_off_t downTotal, curl_off_t down, curl_off_t upTotal, curl_off_t up);

  std::optional<WorkInFlight::Token> activity_;  ///< first, so that it ends after all else is gone
  URLRequest request_;                           ///< of the current hop
  const std::string originalURL_;
  std::unique_ptr<UploadFile> bodyFile_;  ///< in place of the request's body
  SerialQueue& completions_;
  DataTaskCompletion completion_;

  CurlList headers_;
  std::array<char, CURL_ERROR_SIZE> reason_{};
  Instant start_;
  Instant turn_;
  Instant lastProgress_;
  curl_off_t bytesMoved_ = 0;
  std::size_t headerBytes_ = 0;
  std::optional<int> abortedWith_;  ///< code of what one of the callbacks met
  int redirects_ = 0;
  std::set<std::string> asked_;            ///< method and URL of each hop
  CURL* handle_ = nullptr;                 ///< of the current hop
  std::optional<long> connectionsAtSend_;  ///< connections made for this hop when its request went out
  bool sendAgain_ = false;                 ///< asked for by `maySend`
  bool sentAgain_ = false;                 ///< no request goes out a third time

  std::string body_;
  std::optional<HTTPURLResponse> response_;
  std::optional<Error> error_;
};

}  // namespace tarvo::platform

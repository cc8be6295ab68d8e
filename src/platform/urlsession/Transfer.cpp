#include "platform/urlsession/Transfer.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <utility>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

bool isSecure(std::string_view url) { return equalIgnoringCase(url.substr(0, 6), "https:"); }

using namespace std::chrono_literals;

constexpr int kMostRedirects = 20;
constexpr Seconds kDefaultTimeout{60};
constexpr Seconds kResourceLimit = 24h * 7;
/// What is known of replies fits many times over; a peer without end must not fill the memory.
constexpr std::size_t kMostBodyBytes = std::size_t{32} << 20;
constexpr std::size_t kMostHeaderBytes = std::size_t{1} << 20;
/// curl accepts 16 KiB to 2 MiB. One write for the whole body costs less than half of many small ones.
constexpr std::size_t kLeastUploadBuffer = std::size_t{16} << 10;
constexpr std::size_t kMostUploadBuffer = std::size_t{2} << 20;
/// Most of a file that is in memory at once.
constexpr std::size_t kFileBuffer = std::size_t{64} << 10;

bool isRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// Whether a header would stay one header.
bool isOneLine(std::string_view text) { return text.find_first_of(std::string_view("\r\n\0", 3)) == text.npos; }

/// The code that stands for what curl met; `systemError` is the errno beneath it, or 0.
int urlErrorOf(CURLcode result, long systemError) {
  switch (result) {
    case CURLE_URL_MALFORMAT:
      return urlError::badURL;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return urlError::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return systemError == ENETUNREACH ? urlError::notConnectedToInternet : urlError::cannotConnectToHost;
    case CURLE_INTERFACE_FAILED:
      return urlError::notConnectedToInternet;
    case CURLE_OPERATION_TIMEDOUT:
      return urlError::timedOut;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return urlError::networkConnectionLost;
    case CURLE_PEER_FAILED_VERIFICATION:
      return urlError::serverCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_ENGINE_INITFAILED:
      return urlError::secureConnectionFailed;
    case CURLE_FILESIZE_EXCEEDED:
      return urlError::dataLengthExceedsMaximum;
    // The scheme was checked before, so this is a reply in a version that is not spoken.
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return urlError::badServerResponse;
    default:
      return urlError::unknown;
  }
}

/// Says once that a file or an interface which the host has set cannot be used.
void tellUnusableOption(CURLcode result, std::string_view reason) {
  static std::atomic<bool> told{false};
  const bool isUnusable = result == CURLE_SSL_CERTPROBLEM || result == CURLE_INTERFACE_FAILED ||
                          (result == CURLE_SSL_CACERT_BADFILE && !transferOptions().caFile.empty());
  if (isUnusable && !told.exchange(true))
    NSLog(concat("Transfers fail, for one of the transfer options cannot be used: ", reason));
}

std::atomic<bool> keptOut{false};

}  // namespace

Transfer::Transfer(URLRequest request, std::optional<std::filesystem::path> bodyFile, SerialQueue& completions,
                   DataTaskCompletion completion)
    : request_(std::move(request)),
      originalURL_(request_.url),
      completions_(completions),
      completion_(std::move(completion)) {
  if (bodyFile) bodyFile_ = std::make_unique<UploadFile>(std::move(*bodyFile));
  Seconds& timeout = request_.timeoutInterval;
  if (!(timeout > Seconds::zero())) timeout = kDefaultTimeout;
  timeout = std::min(timeout, kResourceLimit);
  asked_.insert(concat(request_.httpMethod, " ", request_.url));
}

void Transfer::begin() {
  activity_.emplace();
  start_ = std::chrono::steady_clock::now();
  touch();
}

void Transfer::beginTurn() { turn_ = std::chrono::steady_clock::now(); }

Transfer::Instant Transfer::patienceEnds() const {
  return turn_ + std::chrono::ceil<Instant::duration>(request_.timeoutInterval);
}

bool Transfer::replaces(const Transfer& other, Instant now) const {
  return replacesOlder() && other.replacesOlder() && originalURL_ == other.originalURL_ &&
         (request_.httpBody == other.request_.httpBody || (other.turn_ != Instant() && other.patienceEnds() <= now));
}

void Transfer::keepOut() { keptOut = true; }

void Transfer::stayOutIfKeptOut() {
  while (keptOut.load(std::memory_order_relaxed)) ::pause();
}

void Transfer::touch() { lastProgress_ = std::chrono::steady_clock::now(); }

Transfer::Instant Transfer::deadline() const {
  using std::chrono::ceil;
  return std::min(lastProgress_ + ceil<Instant::duration>(request_.timeoutInterval),
                  start_ + ceil<Instant::duration>(kResourceLimit));
}

void Transfer::timeOut() { fail(urlError::timedOut); }

void Transfer::fail(int code, std::string_view reason) { error_ = transferError(code, request_.url, reason); }

bool Transfer::prepare(CURL* handle, const TransferOptions& options,
                       const std::optional<std::string>& environmentCaFile) {
  response_.reset();
  body_.clear();
  headerBytes_ = 0;
  bytesMoved_ = 0;
  handle_ = handle;
  connectionsAtSend_.reset();
  reason_.fill(0);
  if (!isValidHttpUrl(request_.url)) {
    const auto scheme = request_.url.find("://");
    const bool isHttp = equalIgnoringCase(request_.url.substr(0, 4), "http");
    fail(scheme == std::string::npos || isHttp ? urlError::badURL : urlError::unsupportedURL);
    return false;
  }
  if (const int failure = bodyFile_ ? bodyFile_->rewind() : 0; failure != 0) {
    fail(UploadFile::urlErrorOf(failure), std::generic_category().message(failure));
    return false;
  }

  curl_easy_reset(handle);
  curl_easy_setopt(handle, CURLOPT_URL, request_.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  // A look-up that hangs is left behind when its transfer times out, instead of holding up all others.
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
  // Without this the answer of a proxy to CONNECT would be taken for the server's.
  curl_easy_setopt(handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  for (const CURLoption version : {CURLOPT_SSLVERSION, CURLOPT_PROXY_SSLVERSION})
    curl_easy_setopt(handle, version, long{CURL_SSLVERSION_TLSv1_2});  // at least
  if (environmentCaFile) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, environmentCaFile->c_str());
    curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
  }
  applyOptions(handle, options);
  const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(request_.timeoutInterval);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, long{timeout.count()});
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, curl_off_t{kMostBodyBytes});

  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, reason_.data());
  curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, long{sentAgain_});
  curl_easy_setopt(handle, CURLOPT_PREREQFUNCTION, &Transfer::onRequest);
  curl_easy_setopt(handle, CURLOPT_PREREQDATA, this);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &Transfer::onProgress);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  if (request_.bytesMoved) {
    // The sizes that can be asked for after a transfer count a body that left with its headers twice.
    curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, &Transfer::onBytes);
    curl_easy_setopt(handle, CURLOPT_DEBUGDATA, request_.bytesMoved.get());
  }

  setBody(handle);
  headers_ = headerList();
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers_.get());
  touch();
  return true;
}

void Transfer::applyOptions(CURL* handle, const TransferOptions& options) const {
  const std::string host = hostOf(request_.url);
  if (!options.proxy.empty()) {
    curl_easy_setopt(handle, CURLOPT_PROXY, options.proxy.c_str());
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "");  // or the environment's exceptions would count
  }
  if (isLoopbackHost(host)) curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
  if (!options.caFile.empty()) {
    for (const CURLoption file : {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO})
      curl_easy_setopt(handle, file, options.caFile.c_str());
    for (const CURLoption folder : {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH}) curl_easy_setopt(handle, folder, nullptr);
  }
  if (!options.clientCertificateFile.empty() && equalIgnoringCase(host, hostOf(originalURL_))) {
    curl_easy_setopt(handle, CURLOPT_SSLCERT, options.clientCertificateFile.c_str());
    if (!options.clientKeyFile.empty()) curl_easy_setopt(handle, CURLOPT_SSLKEY, options.clientKeyFile.c_str());
    // Also when it is empty: otherwise the TLS library asks for it on the terminal, and waits.
    curl_easy_setopt(handle, CURLOPT_KEYPASSWD, options.clientKeyPassphrase.c_str());
  }
  // With this beginning it is never taken for an address or a host.
  if (!options.networkInterface.empty())
    curl_easy_setopt(handle, CURLOPT_INTERFACE, ("if!" + options.networkInterface).c_str());
}

void Transfer::setBody(CURL* handle) {
  const std::string& method = request_.httpMethod;
  const std::uint64_t size = bodyFile_ ? bodyFile_->length() : request_.httpBody ? request_.httpBody->size() : 0;
  // Set in any case: a handle that was used before may hold a smaller buffer than its options say.
  const auto buffer = std::clamp<std::uint64_t>(size, kLeastUploadBuffer, bodyFile_ ? kFileBuffer : kMostUploadBuffer);
  curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(buffer));
  if (bodyFile_ && size > 0) {
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, &Transfer::onRead);
    curl_easy_setopt(handle, CURLOPT_READDATA, this);
    curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
    curl_easy_setopt(handle, CURLOPT_SEEKDATA, this);
  } else if (size > 0 || method == "POST" || method == "PUT" || method == "PATCH") {
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, size > 0 ? request_.httpBody->data() : "");
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
  } else if (method == "HEAD") {
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
  }
  curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
}

CurlList Transfer::headerList() const {
  CurlList list;
  const auto add = [&list](const std::string& line) {
    if (curl_slist* longer = curl_slist_append(list.get(), line.c_str())) {
      static_cast<void>(list.release());
      list.reset(longer);
    }
  };
  for (const auto& [name, value] : request_.headers) {
    // The length is the body's own; and one header must not become two.
    if (equalIgnoringCase(name, "Content-Length") || !isOneLine(name) || !isOneLine(value)) continue;
    add(value.empty() ? name + ";" : name + ": " + value);
  }
  // "Name:" keeps curl from adding its own.
  for (const char* name : {"Accept", "Content-Type", "Expect"})
    if (!request_.value(name)) add(std::string(name) + ":");
  return list;
}

bool Transfer::maySend() {
  // curl asks again when a kept connection has died under the request of this hop. By itself it would go on from one
  // kept connection to the next and give up after the fifth, while a new connection shows whether the server is there.
  // So the second attempt must be on a new one: if curl offers a kept one, the hop is started anew without those.
  long connections = 0;
  curl_easy_getinfo(handle_, CURLINFO_NUM_CONNECTS, &connections);
  if (!connectionsAtSend_) {
    connectionsAtSend_ = connections;
    return true;
  }
  const bool isFresh = connections > *connectionsAtSend_;
  if (isFresh && !std::exchange(sentAgain_, true)) return true;
  sendAgain_ = !sentAgain_;
  return false;
}

bool Transfer::nextHopAfter(CURL* handle, CURLcode result) {
  if (std::exchange(sendAgain_, false)) {
    sentAgain_ = true;
    return true;
  }
  const std::string_view reason(reason_.data());
  if (abortedWith_) {
    fail(*abortedWith_);
  } else if (result != CURLE_OK) {
    long systemError = 0;
    curl_easy_getinfo(handle, CURLINFO_OS_ERRNO, &systemError);
    tellUnusableOption(result, reason);
    fail(urlErrorOf(result, systemError), reason.empty() ? curl_easy_strerror(result) : reason);
  } else if (!response_) {
    fail(urlError::badServerResponse);
  } else if (request_.followsRedirects && isRedirect(response_->statusCode)) {
    for (const auto& [name, value] : response_->headers)
      if (equalIgnoringCase(name, "Location") && !value.empty()) return follow(value);
  }
  return false;
}

bool Transfer::follow(const std::string& location) {
  if (++redirects_ > kMostRedirects) {
    fail(urlError::tooManyRedirects);
    return false;
  }
  const auto target = redirectTarget(request_.url, location);
  if (!target || !isValidHttpUrl(*target)) {
    fail(target ? urlError::unsupportedURL : urlError::badServerResponse);
    return false;
  }
  const std::string from = hostOf(request_.url);
  const std::string to = hostOf(*target);
  // What was asked for over a secured connection is not sent again readable, not even to this machine when another host
  // asks for it.
  if (isSecure(request_.url) && !isSecure(*target) && !(isLoopbackHost(from) && isLoopbackHost(to))) {
    fail(urlError::secureConnectionFailed, "The redirect leads from https to plain http");
    return false;
  }
  const int status = response_->statusCode;
  std::string& method = request_.httpMethod;
  const bool becomesGet = (method == "POST" && status <= 303) || (status == 303 && method != "HEAD" && method != "GET");
  // A body is for the host that it was sent to: another gets none, and the redirect stands as the answer.
  const bool hasBody = bodyFile_ || (request_.httpBody && !request_.httpBody->empty());
  if (hasBody && !becomesGet && !equalIgnoringCase(from, to)) return false;
  if (!asked_.insert(concat(becomesGet ? "GET" : method, " ", *target)).second) {
    fail(urlError::tooManyRedirects, "The redirects lead in a circle");  // the whole body would go round with them
    return false;
  }
  request_.url = *target;
  if (becomesGet) {
    method = "GET";
    request_.httpBody.reset();
    bodyFile_.reset();
  }
  // Even for the same host: who answers behind a redirect is not whom the credentials were meant for.
  std::erase_if(request_.headers, [becomesGet](const auto& header) {
    return equalIgnoringCase(header.first, "Authorization") || equalIgnoringCase(header.first, "Host") ||
           (becomesGet && equalIgnoringCase(header.first, "Content-Type"));
  });
  return true;
}

void Transfer::complete() {
  if (!completion_) return;
  request_.httpBody.reset();  // large, and answering takes long: what comes next may send as much
  std::optional<std::string> data;
  if (!error_ && !body_.empty()) data = std::move(body_);
  completion_(std::move(data), std::move(response_), std::move(error_));
}

bool Transfer::takeHeader(std::string_view line) {
  stayOutIfKeptOut();
  touch();
  headerBytes_ += line.size();
  if (headerBytes_ > kMostHeaderBytes) {
    abortedWith_ = urlError::dataLengthExceedsMaximum;
    return false;
  }
  if (line.starts_with("HTTP/")) {
    const auto blank = std::min(line.find(' '), line.size() - 1);
    int status = 0;
    std::from_chars(line.data() + blank + 1, line.data() + line.size(), status);
    response_.reset();
    // What is below 200 only announces the reply.
    if (status >= 200) response_ = HTTPURLResponse{request_.url, status, {}};
    return true;
  }
  const auto colon = line.find(':');
  if (response_ && colon != line.npos && colon > 0)
    response_->headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
  return true;
}

bool Transfer::takeBody(std::string_view bytes) {
  stayOutIfKeptOut();
  touch();
  if (bytes.size() > kMostBodyBytes - body_.size()) {
    abortedWith_ = urlError::dataLengthExceedsMaximum;
    return false;
  }
  body_.append(bytes);
  return true;
}

int Transfer::onBytes(CURL*, curl_infotype kind, char*, std::size_t count, void* total) {
  if (kind == CURLINFO_HEADER_OUT || kind == CURLINFO_DATA_OUT || kind == CURLINFO_HEADER_IN ||
      kind == CURLINFO_DATA_IN)
    static_cast<std::atomic<std::uint64_t>*>(total)->fetch_add(count);
  return 0;
}

std::size_t Transfer::onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
  return static_cast<Transfer*>(self)->takeHeader({bytes, size * count}) ? size * count : 0;
}

std::size_t Transfer::onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
  return static_cast<Transfer*>(self)->takeBody({bytes, size * count}) ? size * count : 0;
}

std::size_t Transfer::onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  const auto read = transfer.bodyFile_->read(buffer, size * count);
  stayOutIfKeptOut();  // a file system that hangs has kept it
  // The length has been announced: a body that ends before it would leave the server waiting.
  if (!read) transfer.abortedWith_ = urlError::requestBodyStreamExhausted;
  return read.value_or(CURL_READFUNC_ABORT);
}

int Transfer::onRequest(void* self, char*, char*, int, int) {
  stayOutIfKeptOut();
  return static_cast<Transfer*>(self)->maySend() ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
}

int Transfer::onSeek(void* self, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  static_cast<Transfer*>(self)->bodyFile_->seek(static_cast<std::uint64_t>(offset));
  return CURL_SEEKFUNC_OK;
}

int Transfer::onProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
  stayOutIfKeptOut();
  auto& transfer = *static_cast<Transfer*>(self);
  if (std::exchange(transfer.bytesMoved_, down + up) != down + up) transfer.touch();
  return 0;
}

}  // namespace tarvo::platform

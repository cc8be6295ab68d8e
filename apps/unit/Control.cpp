#include "unit/Control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "unit/UnixAddress.h"

namespace tarvo::unit {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr int kBacklog = 16;
constexpr platform::Seconds kPause{1};

bool mayAsk(int socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == ::geteuid() || peer.uid == 0;
}

std::string lineOf(const Dictionary& answer) {
  return Value(answer).toJson().value_or(R"({"error":"the answer is no text"})") + "\n";
}

}  // namespace

struct Control::Client {
  explicit Client(int descriptor) : socket(descriptor) {}
  ~Client() {
    watch.reset();
    ::close(socket);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Reads what is there, up to a line too long. False at the end.
  bool read() {
    std::array<char, 4096> buffer;
    while (in.size() <= kLargestLine) {
      const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), 0);
      if (count < 0) return errno == EAGAIN || errno == EINTR;
      if (count == 0) return false;
      in.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return true;
  }
  /// Writes what goes. False when nobody is there any more.
  bool write() {
    while (!out.empty()) {
      const ssize_t count = ::send(socket, out.data(), out.size(), MSG_NOSIGNAL);
      if (count < 0) return errno == EAGAIN || errno == EINTR;
      out.erase(0, static_cast<std::size_t>(count));
    }
    return true;
  }
  /// Whether there is a whole line; a text too long for one is a line too.
  bool hasLine() const { return in.size() > kLargestLine || in.find('\n') != in.npos; }
  std::string takeLine() {
    const std::size_t end = in.find('\n');
    std::string line = in.substr(0, end);
    in.erase(0, end == in.npos ? end : end + 1);
    return line;
  }

  const int socket;
  std::unique_ptr<Loop::Watch> watch;
  std::string in, out;
  bool waits = false;  ///< for the answer to its request
  bool isServed = false;
  bool ends = false;  ///< nothing more comes from it; it may still wait
};

Control::Control(Loop& loop, const std::filesystem::path& home, Handler handler)
    : loop_(loop), home_(home), handler_(std::move(handler)) {
  const UnixAddress address(home_);
  ::unlink(address.path());
  listening_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // Nobody can connect before it listens.
  const bool stands = listening_ >= 0 && ::bind(listening_, address.get(), address.size()) == 0 &&
                      ::chmod(address.path(), S_IRUSR | S_IWUSR) == 0 && ::listen(listening_, kBacklog) == 0;
  if (!stands) {
    const int reason = errno;
    if (listening_ >= 0) ::close(listening_);
    throw std::system_error(reason, std::generic_category(), (home_ / "control").string());
  }
  watch_ = loop_.watch(listening_, [this] { accept(); });
  pause_ = loop_.timer([this] { watch_->waitFor(true, false); });
}

Control::~Control() {
  clients_.clear();
  pause_.reset();
  watch_.reset();
  ::close(listening_);
  std::error_code gone;
  std::filesystem::remove(home_ / "control", gone);
}

void Control::accept() {
  const int socket = ::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket < 0) {
    if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return;
    // Who has come stays in the queue, which would be ready all the time.
    watch_->waitFor(false, false);
    return pause_->arm(kPause);
  }
  const auto client = std::make_shared<Client>(socket);
  if (!mayAsk(socket)) {
    client->out = lineOf({{"error", "only the unit's own user and root may ask"}});
    client->write();
    return;
  }
  if (clients_.size() == kMostClients) clients_.pop_front();
  clients_.push_back(client);
  client->watch = loop_.watch(socket, [this, weak = std::weak_ptr(client)] {
    const auto ready = weak.lock();
    if (!ready) return;
    // Nothing was waited for, so nobody is there any more.
    if (ready->waits) return drop(ready);
    serve(ready);
  });
}

/// One request at most, so that nobody keeps the loop from its other work.
void Control::serve(const std::shared_ptr<Client>& client) {
  // Whoever waits for an answer is not read from: its requests lie in the socket, which has its own bound.
  if (client->waits) return;
  if (client->out.empty() && !client->hasLine() && !client->read()) client->ends = true;
  if (client->out.empty() && client->hasLine()) take(client, client->takeLine());
  if (!client->write()) return drop(client);
  const bool isFree = !client->waits && client->out.empty(), hasMore = isFree && client->hasLine();
  if (hasMore) serveLater(client);
  if (client->ends && isFree && !hasMore) return drop(client);
  client->watch->waitFor(isFree && !hasMore && !client->ends, !client->out.empty());
}

void Control::serveLater(const std::weak_ptr<Client>& client) {
  loop_.post([this, client] {
    if (const auto still = client.lock()) serve(still);
  });
}

void Control::take(const std::shared_ptr<Client>& client, const std::string& line) {
  clients_.remove(client);
  clients_.push_back(client);
  const auto request = line.size() <= kLargestLine ? Value::fromJson(line) : std::nullopt;
  if (!request || request->asDictionary() == nullptr) {
    client->out = lineOf({{"error", "a request is one line with a JSON object, of at most 64 KiB"}});
    if (line.size() <= kLargestLine) return;
    client->in.clear();
    client->ends = true;
    return;
  }
  client->waits = client->isServed = true;
  handler_(*request->asDictionary(), [this, weak = std::weak_ptr(client)](const Dictionary& answer) {
    const auto asker = weak.lock();
    if (!asker) return;
    asker->waits = false;
    asker->out = lineOf(answer);
    if (!asker->isServed) serveLater(weak);
  });
  client->isServed = false;
}

void Control::drop(const std::shared_ptr<Client>& client) { clients_.remove(client); }

}  // namespace tarvo::unit

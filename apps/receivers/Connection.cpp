#include "Connection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <list>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "Wake.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using Outcome = Waiting::Outcome;

constexpr auto kPatience = 10s;

std::string reasonOf(int error) { return std::generic_category().message(error); }

struct Addresses {
  Addresses() = default;
  ~Addresses() {
    if (first != nullptr) ::freeaddrinfo(first);
  }
  Addresses(const Addresses&) = delete;
  Addresses& operator=(const Addresses&) = delete;

  void find(const std::string& host, const std::string& port, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &first);
    if (error != 0) reason = error == EAI_SYSTEM ? reasonOf(errno) : ::gai_strerror(error);
  }

  addrinfo* first = nullptr;
  int error = 0;
  std::string reason;
};

/// Looks a name up on a thread of its own, which no call can end; the destructor waits for it.
class Lookup {
 public:
  Lookup(std::string host, std::string port)
      : thread_(startThread("tarvo:lookup", [this, host = std::move(host), port = std::move(port)] {
          found_.find(host, port, 0);
          isDone_ = true;
          done_.give();
        })) {}
  ~Lookup() { thread_.join(); }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  int done() const { return done_.descriptor(); }
  bool isDone() const { return isDone_; }
  const Addresses& found() const { return found_; }

 private:
  const Wake done_;
  std::atomic<bool> isDone_ = false;
  Addresses found_;
  std::thread thread_;  // last: it uses the rest
};

std::unique_ptr<Lookup> lookUp(const std::string& host, const std::string& port) {
  try {
    return std::make_unique<Lookup>(host, port);
  } catch (const std::system_error& error) {
    throw Lost(error.code().message());
  }
}

/// Takes a lookup that nobody waits for any more, and ends those that are done meanwhile.
void abandon(std::unique_ptr<Lookup> lookup) {
  static auto* mutex = new std::mutex;
  static auto* all = new std::list<std::unique_ptr<Lookup>>;
  const std::lock_guard lock(*mutex);
  all->remove_if([](const auto& one) { return one->isDone(); });
  all->push_back(std::move(lookup));
}

void keepAlive(int socket) {
  const auto set = [socket](int level, int option, int value) {
    ::setsockopt(socket, level, option, &value, sizeof value);
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 30);
  set(IPPROTO_TCP, TCP_KEEPINTVL, 10);
  set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

/// The first address that answers, -1 when nobody wants it any more.
int connectToOne(const Addresses& addresses, Waiting& waiting) {
  if (addresses.error != 0) throw Lost(addresses.reason);
  int error = ENOENT;
  for (const addrinfo* each = addresses.first; each != nullptr; each = each->ai_next) {
    const int socket = ::socket(each->ai_family, each->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, each->ai_protocol);
    if (socket < 0) {
      error = errno;
      continue;
    }
    error = ::connect(socket, each->ai_addr, each->ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
      const Outcome outcome = waiting.wait(socket, POLLOUT, Waiting::Clock::now() + kPatience);
      if (outcome == Outcome::unwanted) {
        ::close(socket);
        return -1;
      }
      socklen_t size = sizeof error;
      ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
      if (outcome == Outcome::late) error = ETIMEDOUT;
    }
    if (error == 0) {
      keepAlive(socket);
      return socket;
    }
    ::close(socket);
  }
  throw Lost(reasonOf(error));
}

}  // namespace

int connectTo(const std::string& host, const std::string& port, Waiting& waiting) {
  Addresses number;
  number.find(host, port, AI_NUMERICHOST);
  if (number.error == 0) return connectToOne(number, waiting);
  auto lookup = lookUp(host, port);
  const Outcome outcome = waiting.wait(lookup->done(), POLLIN, Waiting::Clock::now() + kPatience);
  if (outcome == Outcome::ready) return connectToOne(lookup->found(), waiting);
  abandon(std::move(lookup));
  if (outcome == Outcome::late) throw Lost("its name was not found within 10 s");
  return -1;
}

}  // namespace tarvo::receivers

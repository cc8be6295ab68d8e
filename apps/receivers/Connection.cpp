#include "Connection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <memory>
#include <mutex>
#include <system_error>

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using Outcome = Waiting::Outcome;

constexpr auto kPatience = 10s;

std::string reasonOf(int error) { return std::generic_category().message(error); }

/// A name that is being looked up. What it is made of stays at its place until the C library is done with it.
struct Lookup {
  Lookup(const std::string& itsHost, const std::string& itsPort) : host(itsHost), port(itsPort) {
    hints.ai_socktype = SOCK_STREAM;
    request.ar_name = host.c_str();
    request.ar_service = port.c_str();
    request.ar_request = &hints;
  }
  ~Lookup() {
    if (request.ar_result != nullptr) ::freeaddrinfo(request.ar_result);
  }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;
  bool isUnderWay() { return ::gai_error(&request) == EAI_INPROGRESS; }

  const std::string host, port;
  addrinfo hints{};
  gaicb request{};
};

/// Takes a lookup that nobody waits for any more, and frees those that have ended meanwhile.
void abandon(std::unique_ptr<Lookup> lookup) {
  static auto* mutex = new std::mutex;
  static auto* all = new std::list<std::unique_ptr<Lookup>>;
  const std::lock_guard lock(*mutex);
  all->remove_if([](const auto& one) { return !one->isUnderWay(); });
  if (::gai_cancel(&lookup->request) == EAI_NOTCANCELED) all->push_back(std::move(lookup));
}

/// None when it is not wanted any more.
std::unique_ptr<Lookup> lookUp(const std::string& host, const std::string& port, Waiting& waiting) {
  auto lookup = std::make_unique<Lookup>(host, port);
  gaicb* requests[] = {&lookup->request};
  if (const int error = ::getaddrinfo_a(GAI_NOWAIT, requests, 1, nullptr)) throw Lost(::gai_strerror(error));
  const auto until = Waiting::Clock::now() + kPatience;
  // The C library tells of the end by a signal or on another thread only: short looks, each longer than the one before.
  for (auto look = 1ms; lookup->isUnderWay(); look = std::min<std::chrono::milliseconds>(2 * look, 500ms)) {
    const bool unwanted = waiting.wait(-1, 0, Waiting::Clock::now() + look) == Outcome::unwanted;
    if (!unwanted && Waiting::Clock::now() < until) continue;
    abandon(std::move(lookup));
    if (unwanted) return nullptr;
    throw Lost("its name was not found within 10 s");
  }
  if (const int error = ::gai_error(&lookup->request))
    throw Lost(error == EAI_SYSTEM ? reasonOf(errno) : ::gai_strerror(error));
  return lookup;
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

}  // namespace

int connectTo(const std::string& host, const std::string& port, Waiting& waiting) {
  const auto found = lookUp(host, port, waiting);
  if (!found) return -1;
  int error = ENOENT;
  for (const addrinfo* each = found->request.ar_result; each != nullptr; each = each->ai_next) {
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

}  // namespace tarvo::receivers

// A backend that reads requests, drops them and answers 200. Prints its port, and a line after ANNOUNCE_AT requests.
// usage: bench_sink ANNOUNCE_AT
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/Process.h"

namespace {

using tarvo::bench::fail;

struct Connection {
  int socket = -1;
  std::string head;      ///< of the request that is being read
  std::size_t body = 0;  ///< bytes of its body that are still to come
};

std::size_t contentLength(const std::string& head) {
  const char* field = strcasestr(head.c_str(), "\r\ncontent-length:");
  return field != nullptr ? std::strtoull(field + 17, nullptr, 10) : 0;
}

void send(int socket, std::string_view text) {
  if (write(socket, text.data(), text.size()) != static_cast<ssize_t>(text.size())) fail("an answer was not taken");
}

/// Takes bytes of a request; answers the number of requests that they end.
int take(Connection& connection, std::string_view bytes) {
  int ended = 0;
  while (!bytes.empty()) {
    if (connection.body == 0) {
      connection.head.append(bytes);
      const std::size_t end = connection.head.find("\r\n\r\n");
      if (end == std::string::npos) return ended;
      bytes = bytes.substr(bytes.size() - (connection.head.size() - end - 4));
      connection.head.resize(end + 2);
      connection.body = contentLength(connection.head);
      if (strcasestr(connection.head.c_str(), "\r\nexpect:") != nullptr)
        send(connection.socket, "HTTP/1.1 100 Continue\r\n\r\n");
      connection.head.clear();
    }
    const std::size_t taken = std::min(connection.body, bytes.size());
    connection.body -= taken;
    bytes.remove_prefix(taken);
    if (connection.body > 0) continue;
    send(connection.socket, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}");
    ++ended;
  }
  return ended;
}

int listenOnLoopback() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* plain = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, plain, size) != 0 || listen(listener, 16) != 0 || getsockname(listener, plain, &size) != 0)
    fail("cannot listen");
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return listener;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) fail("usage: bench_sink ANNOUNCE_AT");
  const long announceAt = std::strtol(argv[1], nullptr, 10);
  // A benchmark that breaks off must not leave its backend behind.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  std::vector<Connection> connections{{listenOnLoopback(), {}, 0}};
  std::vector<char> buffer(1 << 20);
  long requests = 0;
  while (true) {
    std::vector<pollfd> waits;
    for (const Connection& connection : connections) waits.push_back({connection.socket, POLLIN, 0});
    if (poll(waits.data(), waits.size(), -1) < 0) fail("poll");
    for (std::size_t i = waits.size(); i-- > 1;) {
      if (waits[i].revents == 0) continue;
      const ssize_t got = read(waits[i].fd, buffer.data(), buffer.size());
      if (got <= 0) {
        close(waits[i].fd);
        connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
        continue;
      }
      const int ended = take(connections[i], {buffer.data(), static_cast<std::size_t>(got)});
      if (requests < announceAt && requests + ended >= announceAt) {
        std::puts("reached");
        std::fflush(stdout);
      }
      requests += ended;
    }
    if (waits[0].revents == 0) continue;
    const int accepted = accept4(waits[0].fd, nullptr, nullptr, SOCK_CLOEXEC);
    const int on = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connections.push_back({accepted, {}, 0});
  }
}

#include "sandbox/Sending.h"

#include <httplib.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace tarvo::sandbox {
namespace {

constexpr const char* kType = "application/json";
/// Between two pieces of a body that drips: a longer one comes several bytes at a time.
constexpr double kShortestPause = 0.01;

/// Address and port of an end of a socket, as the server writes them into a request; a port of -1 for what is none.
std::pair<std::string, int> endOf(int socket, int (*name)(int, sockaddr*, socklen_t*)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  char host[NI_MAXHOST] = {}, port[NI_MAXSERV] = {};
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (name(socket, plain, &size) != 0 || (address.ss_family != AF_INET && address.ss_family != AF_INET6) ||
      getnameinfo(plain, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return {{}, -1};
  return {host, std::stoi(port)};
}

}  // namespace

void sendWhole(Reply reply, httplib::Response& response) {
  response.status = reply.status;
  for (const auto& [name, value] : reply.headers) response.set_header(name, value);
  if (reply.status == 401) response.set_header("WWW-Authenticate", "Basic realm=\"sandbox\"");
  if (!reply.body.empty()) response.set_content(std::move(reply.body), kType);
}

void send(Reply reply, Faults& faults, httplib::Response& response) {
  const Reply::Manner manner = reply.manner;
  if (manner == Reply::Manner::whole || manner == Reply::Manner::drop || reply.body.empty())
    return sendWhole(std::move(reply), response);
  const std::string body = std::exchange(reply.body, {});
  const double seconds = reply.seconds;
  sendWhole(std::move(reply), response);
  if (manner == Reply::Manner::half) {
    response.set_content_provider(body.size(), kType, [body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
      return offset == 0 && sink.write(body.data(), body.size() / 2);
    });
    return;
  }
  const double size = static_cast<double>(body.size()), pieces = std::clamp(seconds / kShortestPause, 1.0, size);
  const auto piece = static_cast<std::size_t>(size / pieces);
  const double pause = seconds * static_cast<double>(piece) / size;
  response.set_content_provider(
      body.size(), kType, [body, piece, pause, &faults](std::size_t offset, std::size_t left, httplib::DataSink& sink) {
        return faults.pause(pause) && sink.write(body.data() + offset, std::min(piece, left));
      });
}

void closeConnection(const httplib::Request& request) {
  // Whichever socket of this process has the two ends of the request: it stays open while the request is served, and
  // no second one can have both.
  const std::pair here(request.local_addr, request.local_port), there(request.remote_addr, request.remote_port);
  std::error_code failure;
  std::filesystem::directory_iterator open("/proc/self/fd", failure);
  for (; !failure && open != std::filesystem::directory_iterator(); open.increment(failure)) {
    const int socket = std::stoi(open->path().filename().string());
    if (endOf(socket, getpeername) == there && endOf(socket, getsockname) == here) ::shutdown(socket, SHUT_RDWR);
  }
}

}  // namespace tarvo::sandbox

#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarvo::test {

/// Makes a reply of a request.
using Answer = std::function<std::string(const std::string& request)>;

inline std::string httpReply(int status, const std::string& body = "",
                             const std::string& headers = "Connection: close\r\n") {
  return "HTTP/1.1 " + std::to_string(status) + " X\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

/// Three megabytes in which a part that is out of place shows.
inline std::string largeBody() {
  std::string body(3'000'000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 % 251);
  return body;
}

/// The server's end of a connection.
struct Connection {
  explicit Connection(int descriptor) : socket(descriptor) {}
  virtual ~Connection() = default;

  /// Takes up to that many bytes of what the peer sends; or only looks at them.
  virtual ssize_t read(char* to, std::size_t size) { return ::recv(socket, to, size, 0); }
  virtual ssize_t peek(char* to, std::size_t size) { return ::recv(socket, to, size, MSG_PEEK); }
  /// Answers whether the peer still takes it.
  virtual bool send(const std::string& bytes) {
    return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  /// The request up to the blank line; what there is when the peer leaves before.
  std::string readHead() {
    std::string head;
    char bytes[4096];
    for (ssize_t n; !head.ends_with("\r\n\r\n") && (n = peek(bytes, sizeof bytes)) > 0;) {
      const auto known = head.size();
      head.append(bytes, static_cast<std::size_t>(n));
      if (const auto end = head.find("\r\n\r\n"); end != head.npos) head.resize(end + 4);
      read(bytes, head.size() - known);
    }
    return head;
  }
  /// What follows that head; without it a close resets the connection.
  std::string readBody(const std::string& head) {
    const auto length = head.find("Content-Length: ");
    std::string body(length == head.npos ? 0 : std::stoul(head.substr(length + 16)), '\0');
    std::size_t got = 0;
    for (ssize_t n; got < body.size() && (n = read(&body[got], body.size() - got)) > 0;)
      got += static_cast<std::size_t>(n);
    body.resize(got);
    return body;
  }
  std::string readRequest() {
    const std::string head = readHead();
    return head + readBody(head);
  }
  /// Replies until the peer leaves.
  void answerAll(const Answer& answer) {
    for (std::string request; !(request = readRequest()).empty();) send(answer(request));
  }
  void waitForPeerToLeave() {
    for (char c; read(&c, 1) == 1;) continue;
  }
  /// The close that follows resets the connection.
  void resetOnClose() const {
    const linger now{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  }
  /// Reads fail when nothing has come for so long.
  void setPatience(int milliseconds) const {
    const timeval pause{0, milliseconds * 1000};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
  }

  const int socket;
};

/// A loopback server that speaks byte by byte what a test wants, with each peer on a thread of its own. A connection is
/// closed when it was served, at the latest with the server.
class RawServer {
 public:
  explicit RawServer(const Answer& answer)
      : RawServer([answer](Connection& connection) { connection.answerAll(answer); }) {}
  explicit RawServer(std::function<void(Connection&)> serve)
      : serve_(std::move(serve)), socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
    if (::bind(socket_, generic, size) != 0 || ::listen(socket_, 16) != 0) throw std::runtime_error("no server");
    ::getsockname(socket_, generic, &size);
    port = std::to_string(ntohs(address.sin_port));
    acceptor_ = std::thread([this] {
      pollfd wanted{socket_, POLLIN, 0};  // an accept that waits would hold a descriptor
      for (int peer; ::poll(&wanted, 1, -1) == 1 && (peer = ::accept(socket_, nullptr, nullptr)) >= 0;) {
        const std::lock_guard lock(mutex_);
        open_.insert(peer);
        threads_.emplace_back([this, peer] { attend(peer); });
      }
    });
  }
  ~RawServer() {
    ::shutdown(socket_, SHUT_RDWR);
    acceptor_.join();
    {
      const std::lock_guard lock(mutex_);
      for (const int peer : open_) ::shutdown(peer, SHUT_RDWR);
    }
    for (auto& thread : threads_) thread.join();
    ::close(socket_);
  }

  std::string host() const { return "127.0.0.1:" + port; }
  std::string url(const std::string& path = "/") const { return "http://" + host() + path; }

  std::string port;

 private:
  void attend(int peer) {
    Connection connection(peer);
    serve_(connection);
    const std::lock_guard lock(mutex_);
    open_.erase(peer);
    ::close(peer);
  }

  const std::function<void(Connection&)> serve_;
  const int socket_;
  std::mutex mutex_;
  std::set<int> open_;
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

}  // namespace tarvo::test

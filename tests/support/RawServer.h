#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarvo::test {

/// A loopback server that speaks byte by byte what a test wants: one connection after the other, or each on a thread of
/// its own and open until the end.
class RawServer {
 public:
  enum Order { oneByOne, sideBySide };
  explicit RawServer(std::function<void(int connection)> serve) : RawServer(oneByOne, std::move(serve)) {}
  RawServer(Order order, std::function<void(int connection)> serve) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
    if (::bind(socket_, generic, size) != 0 || ::listen(socket_, 16) != 0) throw std::runtime_error("no server");
    ::getsockname(socket_, generic, &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, order, serve = std::move(serve)] {
      std::vector<std::pair<int, std::thread>> open;
      for (int connection; (connection = ::accept(socket_, nullptr, nullptr)) >= 0;) {
        if (order == sideBySide) {
          open.emplace_back(connection, std::thread(serve, connection));
        } else {
          serve(connection);
          ::close(connection);
        }
      }
      for (auto& [connection, thread] : open) ::shutdown(connection, SHUT_RDWR);
      for (auto& [connection, thread] : open) {
        thread.join();
        ::close(connection);
      }
    });
  }
  ~RawServer() {
    ::shutdown(socket_, SHUT_RDWR);
    thread_.join();
    ::close(socket_);
  }
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path = "/") const { return "http://" + host() + path; }

  /// Takes up to that many bytes of what the peer sends.
  using Read = std::function<ssize_t(char* to, std::size_t size)>;
  static Read from(int connection) {
    return [connection](char* to, std::size_t size) { return ::recv(connection, to, size, 0); };
  }
  /// The request up to the blank line; what there is when the peer leaves before.
  static std::string readHead(const Read& read) {
    std::string head;
    for (char c; !head.ends_with("\r\n\r\n") && read(&c, 1) == 1;) head.push_back(c);
    return head;
  }
  static std::string readHead(int connection) { return readHead(from(connection)); }
  /// What follows that head; without it a close resets the connection.
  static std::string readBody(const Read& read, const std::string& head) {
    const auto length = head.find("Content-Length: ");
    std::string body(length == head.npos ? 0 : std::stoul(head.substr(length + 16)), '\0');
    std::size_t got = 0;
    for (ssize_t n; got < body.size() && (n = read(&body[got], body.size() - got)) > 0;)
      got += static_cast<std::size_t>(n);
    body.resize(got);
    return body;
  }
  static std::string readRequest(const Read& read) {
    const std::string head = readHead(read);
    return head + readBody(read, head);
  }
  /// Answers whether the peer still takes it.
  static bool send(int connection, const std::string& bytes) {
    return ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  static void waitForPeerToLeave(int connection) {
    for (char c; ::recv(connection, &c, 1, 0) == 1;) continue;
  }
  /// The close that follows resets the connection.
  static void resetOnClose(int connection) {
    const linger now{1, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  }

 private:
  int socket_;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace tarvo::test

#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace tarvo::test {

/// A server that goes with the object, and with the process should that be killed: see postgres.sh.
class PostgresServer {
 public:
  PostgresServer() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(ends[1], STDIN_FILENO);
      ::dup2(ends[1], STDOUT_FILENO);
      ::execl(TARVO_TEST_SUPPORT "/postgres.sh", "postgres.sh", nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    channel_ = ends[0];
    folder_ = line();
  }
  ~PostgresServer() {
    ::close(channel_);
    ::waitpid(child_, nullptr, 0);
  }
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  /// Without Debian's package there is none.
  bool isThere() const { return !folder_.empty(); }
  std::string url() const { return "postgresql://postgres@/postgres?host=" + folder_; }
  bool restart() { return ::send(channel_, "\n", 1, MSG_NOSIGNAL) == 1 && line() == "restarted"; }

 private:
  std::string line() const {
    std::string text;
    for (char c = 0; ::read(channel_, &c, 1) == 1 && c != '\n';) text += c;
    return text;
  }

  pid_t child_ = -1;
  int channel_ = -1;
  std::string folder_;
};

}  // namespace tarvo::test

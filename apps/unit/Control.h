#pragma once

#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include <tarvo/platform/Value.h>

#include "unit/Loop.h"

namespace tarvo::unit {

/// Answers other processes on the socket `control` in the unit's home: a request is one line with a JSON object, and so
/// is its answer; {"error": TEXT} tells what is wrong with it. Answers come in the order of their requests.
///
/// Only the unit's own user and root are served. A line has at most 64 KiB and sixteen clients are served at once, the
/// one that has asked least lately goes for a seventeenth; a client that does not read its answers is not read from.
/// Whoever comes while the process has no descriptor left waits a second or so for one.
///
/// Threads: main. The folder belongs to this process alone, so a socket that lies there has nobody behind it any more.
/// Errors: std::system_error where the socket cannot be made.
class Control {
 public:
  static constexpr std::size_t kLargestLine = 64 * 1024, kMostClients = 16;

  /// At most once, and at any time: the client may have gone meanwhile.
  using Reply = std::function<void(platform::Dictionary answer)>;
  using Handler = std::function<void(const platform::Dictionary& request, const Reply& reply)>;

  Control(Loop& loop, const std::filesystem::path& home, Handler handler);
  /// Removes the socket.
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

 private:
  struct Client;
  void accept();
  void serve(const std::shared_ptr<Client>& client);
  void serveLater(const std::weak_ptr<Client>& client);
  void take(const std::shared_ptr<Client>& client, const std::string& line);
  void drop(const std::shared_ptr<Client>& client);

  Loop& loop_;
  const std::filesystem::path home_;
  const Handler handler_;
  int listening_ = -1;
  std::unique_ptr<Loop::Watch> watch_;
  std::unique_ptr<Loop::Timer> pause_;
  std::list<std::shared_ptr<Client>> clients_;  ///< who has asked least lately first
};

}  // namespace tarvo::unit

#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <tarvo/Tarvo.h>

namespace httplib {
class Client;
}

namespace tarvo::cli {

/// The host's side of a sandbox's channel (docs/sandbox.md): pushes from its page are given to the SDK, and the page is
/// told every few seconds how this host is doing, and what its delegate was told.
///
/// Threads: any; two of its own, which the destructor ends within a moment. Errors: none; a sandbox that cannot be
/// reached is tried again each second.
class Channel {
 public:
  struct Host {
    std::string origin;  ///< of the sandbox, "http://127.0.0.1:8484"
    std::string apiKey, apiSecret;
    std::function<std::string()> health;  ///< a JSON text; on the channel's thread
    std::function<bool()> mayBePushed;    ///< whether the SDK can take a push yet; on the channel's thread
  };

  /// "scheme://host:port" of a sandbox's address. Absent unless it is https, or http to this machine: the account's
  /// secret goes there.
  static std::optional<std::string> originOf(const std::string& url);

  Channel(Host host, Tarvo tarvo);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// The delegate was told this. Does not wait.
  void told(std::string what);
  /// The delegate was told of that many positions; the page gets their sum now and then.
  void toldPositions(std::size_t count);

 private:
  void listen();
  void report();
  bool take(const std::string& event);
  void received(const std::string& data);
  bool post(const std::string& what, const std::string& json);
  std::unique_ptr<httplib::Client> client() const;
  /// Whether it is time to end, at the latest then.
  bool waitForEnd(double seconds);

  const Host host_;
  Tarvo tarvo_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
  std::deque<std::string> told_;
  std::size_t positions_ = 0;
  httplib::Client* listening_ = nullptr;

  std::string lastEvent_;  ///< of the listening thread
  std::thread listener_, reporter_;
};

}  // namespace tarvo::cli

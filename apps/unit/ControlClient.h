#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <tarvo/platform/Date.h>
#include <tarvo/platform/Value.h>

namespace tarvo::unit {

/// A connection to the unit that runs on a home (Control.h). Threads: one at a time. Errors: absent answers, and a text
/// for people that says why.
class ControlClient {
 public:
  static std::optional<ControlClient> connect(const std::filesystem::path& home, std::string& error);

  ControlClient(ControlClient&& other) noexcept;
  ControlClient& operator=(ControlClient&&) = delete;
  ~ControlClient();

  /// Waits for the answer; what the unit says against the request is an error too. A signal ends the wait.
  std::optional<platform::Dictionary> ask(const platform::Dictionary& request, platform::Seconds timeout,
                                          std::string& error);
  /// Returns after that time, or sooner when the unit ends or a signal comes.
  void waitForEnd(platform::Seconds span) const;

 private:
  explicit ControlClient(int socket) : socket_(socket) {}
  /// What the socket has to say within the time; 0 for nothing, and after a signal.
  short poll(platform::Seconds span) const;

  int socket_;
  std::string received_;
};

}  // namespace tarvo::unit

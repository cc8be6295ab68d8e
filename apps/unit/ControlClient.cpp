#include "unit/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "unit/UnixAddress.h"

namespace tarvo::unit {

using platform::Dictionary;
using platform::Seconds;
using platform::Value;

std::optional<ControlClient> ControlClient::connect(const std::filesystem::path& home, std::string& error) {
  const std::string unit = "the unit on " + home.string(), none = "no unit runs on " + home.string();
  const std::string closed = unit + " answers its own user and root alone";
  try {
    const UnixAddress address(home);
    ControlClient client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // A unit that is stuck takes no client.
    const timeval patience = {10, 0};
    ::setsockopt(client.socket_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (client.socket_ >= 0 && ::connect(client.socket_, address.get(), address.size()) == 0) return client;
    error = errno == ENOENT || errno == ECONNREFUSED ? none
            : errno == EACCES                        ? closed
            : errno == EAGAIN                        ? unit + " does not answer"
                                                     : unit + ": " + std::strerror(errno);
  } catch (const std::system_error& failure) {
    error = failure.code() == std::errc::permission_denied ? closed : none + ": " + failure.code().message();
  }
  return std::nullopt;
}

ControlClient::ControlClient(ControlClient&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)), received_(std::move(other.received_)) {}

ControlClient::~ControlClient() {
  if (socket_ >= 0) ::close(socket_);
}

short ControlClient::poll(Seconds span) const {
  pollfd wanted = {socket_, POLLIN, 0};
  const int milliseconds = static_cast<int>(std::clamp(span.count() * 1000, 0.0, 1e8));
  return ::poll(&wanted, 1, milliseconds) > 0 ? wanted.revents : short(0);
}

void ControlClient::waitForEnd(Seconds span) const { poll(span); }

std::optional<Dictionary> ControlClient::ask(const Dictionary& request, Seconds timeout, std::string& error) {
  using Real = std::chrono::steady_clock;
  const auto end = Real::now() + timeout;
  const std::string line = Value(request).toJson().value_or("") + "\n";
  for (std::size_t sent = 0; sent < line.size();) {
    const ssize_t count = ::send(socket_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (count < 0) {
      error = "the unit has ended";
      return std::nullopt;
    }
    sent += static_cast<std::size_t>(count);
  }
  std::array<char, 4096> buffer;
  while (received_.find('\n') == received_.npos) {
    if (poll(end - Real::now()) == 0) {
      error = "the unit does not answer";
      return std::nullopt;
    }
    const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (count <= 0) {
      error = "the unit has ended";
      return std::nullopt;
    }
    received_.append(buffer.data(), static_cast<std::size_t>(count));
  }
  const std::size_t length = received_.find('\n');
  auto answer = Value::fromJson(received_.substr(0, length));
  received_.erase(0, length + 1);
  Dictionary* const read = answer ? answer->asDictionary() : nullptr;
  const auto refusal = read != nullptr ? platform::findString(*read, "error") : "what the unit says is no answer";
  if (!refusal) return std::move(*read);
  error = *refusal;
  return std::nullopt;
}

}  // namespace tarvo::unit

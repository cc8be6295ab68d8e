#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/Service.h"
#include "sandbox/live/Feed.h"

namespace tarvo::sandbox::live {

/// What goes to one reader of server-sent events. Each call of `next` waits for something to say, and says at least
/// every two seconds that the stream lives, so that a reader who has left is noticed.
///
/// Threads: one at a time. Errors: those of the store.
class Stream {
 public:
  virtual ~Stream() = default;

  /// The next piece of text; nothing when the stream has ended.
  std::optional<std::string> next();

 protected:
  /// `after` is the number of the last event that the reader knows, if it knows any; `user` is empty for all.
  Stream(Service& service, Feed& feed, std::optional<std::int64_t> after, std::string user);

  virtual std::string text(const std::vector<Event>& events) = 0;
  /// Before each wait.
  virtual void beat() {}

  Service& service_;
  Feed& feed_;
  const std::string user_;
  std::int64_t last_;
};

/// To a page: everything that happens, and how the units stand after it.
class PageStream final : public Stream {
 public:
  PageStream(Service& service, Feed& feed, std::optional<std::int64_t> after) : Stream(service, feed, after, {}) {}

 private:
  std::string text(const std::vector<Event>& events) override;
};

/// To a host: the pushes for its unit, which is connected from construction to destruction.
class HostStream final : public Stream {
 public:
  HostStream(Service& service, Feed& feed, std::optional<std::int64_t> after, std::string user);
  ~HostStream() override;

 private:
  std::string text(const std::vector<Event>& events) override;
  void beat() override;

  std::int64_t told_ = 0;
};

}  // namespace tarvo::sandbox::live

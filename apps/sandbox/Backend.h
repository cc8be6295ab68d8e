#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "sandbox/Archive.h"
#include "sandbox/Faults.h"

namespace tarvo::sandbox {

/// The one customer that the backend serves.
struct Account {
  std::string clientID, apiKey, apiSecret;
};

/// A small backend on a free loopback port: takes registrations and position batches over HTTP and keeps them.
///
///   POST /api/v1/CLIENT/users      Basic API key and secret; a device gets the same identity every time.
///   POST /api/v1/CLIENT/positions  Basic user and user secret; a batch of positions.
/// Wrong credentials are answered with 401, a body that is malformed with 400, one above 64 MiB with 413, all other
/// paths and methods with 404.
///
/// Threads: any; requests are served on threads of its own, which `stop` and the destructor wait for (up to about a
/// second while a client keeps a connection open). Errors: std::runtime_error from the constructor and `start`.
class Backend {
 public:
  /// Opens or creates the archive; nothing is served yet.
  Backend(Account account, const std::filesystem::path& archive);
  ~Backend();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  /// Serves when it returns; at most once.
  void start();
  /// Posts that hang are answered with 503. A second call does nothing.
  void stop();

  /// `http://127.0.0.1:PORT/api`; once started.
  const std::string& baseURL() const;
  Holdings holdings();
  Faults& faults();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarvo::sandbox

#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "sandbox/Canned.h"
#include "sandbox/Faults.h"
#include "sandbox/store/Store.h"

namespace tarvo::sandbox {

/// A small backend: takes registrations, position batches, logs and account calls over HTTP and keeps them; answers
/// predictions, past trips and places that it has derived from the positions, or that are canned. Shows what happens on
/// a page at "/": docs/sandbox.md.
///
/// Below /api/v1/CLIENT/, with API key and API secret:
///   POST users                  a device gets the same identity every time
/// and with user and user secret:
///   POST positions              a batch; answered with the counters of what `serve` was given
///   POST uplog                  a log file, kept in the log folder as USER/NAME in place of one before
///   POST tokens, tags/set, tags/unset, subscriptions/register, subscriptions/unregister
///                               kept in the archive, without any effect
///   GET userconf?uuid=USER      "log_level", when there is one
///   GET predictions, pois, pasttrips?first_pasttrip_id=A&last_pasttrip_id=B
///                               trips with A < id <= B, by id; "success" false without a prediction
///   GET resetbackend            the past trips of this user are forgotten; canned ones until the next `serve`
///   GET resetgeoprofile         likewise its prediction and places
/// A reset leaves what was received as it is: the archive is the record of a run.
///
/// Wrong credentials are answered with 401, what is malformed with 400, a body that announces more than 64 MiB with
/// 413, all other paths and methods with 404.
///
/// Threads: any; requests are served on threads of its own, which `stop` and the destructor wait for (up to about a
/// second while a client keeps a connection open, longer while one still sends). Errors: std::runtime_error from the
/// constructor, `start` and `serve`.
class Backend {
 public:
  struct Options {
    std::string address = "127.0.0.1";       ///< to bind to; a name or number
    std::filesystem::path certificate, key;  ///< PEM files: TLS; plain HTTP without
    std::string token;                       ///< asked for by the page; elsewhere than on loopback made when empty
    std::string tiles;                       ///< URL template of map tiles for the page
    int workers = 32;                        ///< threads: a request or stream occupies one
  };

  /// Opens or creates the archive; nothing is served yet. Logs go to `logs`; without, to a folder beside the archive,
  /// named like it with "-logs" in place of its extension.
  Backend(Account account, const std::filesystem::path& archive, std::filesystem::path logs = {});
  /// Serves from a store that is open. Errors: std::invalid_argument also for tiles that are no URL.
  Backend(Account account, std::unique_ptr<Store> store, Options options);
  ~Backend();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  /// Serves when it returns; at most once. Port 0 is any free one; another must not be in use, but may have been a
  /// moment ago.
  void start(int port = 0);
  /// Requests that wait for a fault are answered with 503. A second call does nothing.
  void stop();

  /// Answers with canned data from here on, at any time; at first with what is derived.
  void serve(const Canned& canned);

  /// `http://127.0.0.1:PORT/api`; once started.
  const std::string& baseURL() const;
  /// `http://127.0.0.1:PORT`; once started.
  std::string origin() const;
  /// Of the page, with the token if there is one; once started.
  std::string pageURL() const;
  int port() const;
  const std::filesystem::path& logs() const;
  Holdings holdings();
  Faults& faults();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarvo::sandbox

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sandbox/derive/Records.h"
#include "sandbox/wire/Bodies.h"

namespace tarvo::sandbox {

/// Who a device is to the backend.
struct Identity {
  std::string uuid, secret, creationDate;
};

/// How much was received; a repeat is a position that came again under a number that was known.
struct Holdings {
  std::int64_t users = 0, positions = 0, repeats = 0, batches = 0;
  /// Numbers between 0 and the highest of each user that never came.
  std::int64_t missing = 0;
  std::int64_t logs = 0;
};

/// A user as people look at it. Times are milliseconds since 1970 here and below; 0 is never.
struct Unit {
  std::string uuid, name;
  std::int64_t positions = 0, repeats = 0, highest = -1;
  std::int64_t lastSeen = 0, connectedUntil = 0;
  std::optional<derive::Point> newest;  ///< by time
};

/// A position as it is kept; what came as no number is absent.
struct Held {
  std::int64_t id = 0;
  std::optional<double> time, lon, lat, accuracy, speed;  ///< seconds since 1970, degrees, metres, m/s
};

/// Which numbers of a user came and which did not. Holes are ranges with both ends, repeats number and arrivals.
struct Ledger {
  std::int64_t count = 0, highest = -1;
  std::vector<std::pair<std::int64_t, std::int64_t>> holes, repeats;
};

struct LogFile {
  std::string file;
  std::int64_t bytes = 0, received = 0;
};

/// A request that was answered; `n` is given by the store. Status 0: it got no answer.
struct RequestRow {
  std::int64_t n = 0, at = 0;
  std::string unit, method, path;  ///< `unit` is empty where nobody is known; `path` has its query
  int status = 0;
  std::int64_t bytes = 0;
  std::string fault;  ///< its kind; empty without
};

/// Something that happened, for the pages and hosts that watch: a user (or none), what, and a JSON text.
struct Event {
  std::int64_t n = 0;
  std::string unit, kind, json;
};

struct Health {
  std::int64_t at = 0;
  std::string json;
};

/// What a store keeps of one user, for the time of one transaction; beside what the derivation reads and writes, what
/// the user sends. Threads: the one that runs the transaction. Errors: std::runtime_error, which undoes it.
class UserRecords : public derive::Records {
 public:
  /// Keeps a batch and counts it. A position whose number is known is counted as a repeat and otherwise ignored. Gives
  /// back the others, in their order, without those whose date or place is no such.
  virtual std::vector<derive::Point> add(const std::vector<Position>& batch) = 0;
  /// `texts` are those of the form's keys, in their order.
  virtual void addCall(const Form& form, const std::vector<std::string>& texts) = 0;
  virtual void addReset(std::string_view call) = 0;
  /// In place of this user's file of this name.
  virtual void addLog(std::string_view file, std::string_view content) = 0;
  /// Tells those who watch, once the transaction holds.
  virtual void tell(std::string_view kind, std::string_view json) = 0;
};

/// Where the backend keeps everything it was sent and everything it has derived. Several processes may use one at the
/// same time: nothing that one of them has read before holds true for ever, so nothing is cached outside it.
///
/// Threads: any. Errors: std::runtime_error with the text of the engine; what was begun is then undone.
class Store {
 public:
  virtual ~Store() = default;

  /// What engine it is: "sqlite" or "postgresql".
  virtual std::string_view name() const = 0;

  /// The identity of the device, made at its first call; the same each time, whichever process is asked.
  virtual Identity identify(const Device& device) = 0;
  virtual bool knows(const Credentials& user) = 0;

  /// Runs the work in one transaction during which nobody else, thread or process, changes this user. It holds
  /// as a whole when this returns, also when the process is killed, and is undone as a whole when the work throws. An
  /// engine may undo the work and run it again, so it has no other effect than on the records and on what it sets anew
  /// each time.
  virtual void change(const std::string& user, const std::function<void(UserRecords&)>& work) = 0;
  /// Runs the work on the state of one moment; it must not write.
  virtual void look(const std::string& user, const std::function<void(derive::Records&)>& work) = 0;

  virtual void addRequest(const RequestRow& request) = 0;
  /// Those with a lower `n`, newest first.
  virtual std::vector<RequestRow> requests(std::int64_t before, std::int64_t limit) = 0;
  virtual std::int64_t requestCount() = 0;

  virtual Holdings holdings() = 0;
  virtual std::vector<Unit> units() = 0;
  virtual std::optional<Unit> unit(const std::string& user) = 0;
  /// Those with first <= number <= last, by number.
  virtual std::vector<Held> positions(const std::string& user, std::int64_t first, std::int64_t last,
                                      std::int64_t limit) = 0;
  /// At most `limit` holes and repeats.
  virtual Ledger ledger(const std::string& user, std::int64_t limit) = 0;
  virtual std::vector<LogFile> logs(const std::string& user) = 0;
  /// What this user has sent last under this name.
  virtual std::optional<std::string> log(const std::string& user, const std::string& file) = 0;

  /// Tells those who watch; an empty user is nobody. Returns the event's number.
  virtual std::int64_t tell(const std::string& user, std::string_view kind, std::string_view json) = 0;
  /// Those with a higher number, by number, of this user alone unless it is empty. One that is not among them yet will
  /// bear a higher number than all of them: whoever asks again from the last misses none. The oldest are forgotten, so
  /// the first may lie further on.
  virtual std::vector<Event> events(std::int64_t after, std::int64_t limit, const std::string& user) = 0;
  /// The number of the newest event that `events` would give; 0 without any. Cheap enough to be asked several times a
  /// second.
  virtual std::int64_t lastEvent() = 0;

  /// A host process of this user is connected until then, unless this is said again.
  virtual void connected(const std::string& user, std::int64_t until) = 0;
  virtual void setHealth(const std::string& user, const Health& health) = 0;
  virtual std::optional<Health> health(const std::string& user) = 0;
};

}  // namespace tarvo::sandbox

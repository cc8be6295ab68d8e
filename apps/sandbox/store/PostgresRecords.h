#pragma once

#include <set>
#include <string>
#include <vector>

#include "sandbox/store/PostgresConnection.h"
#include "sandbox/store/Store.h"

namespace tarvo::sandbox::postgres {

/// Days that have no partition yet. They cannot be made in a transaction that has looked at positions: it would wait
/// for others that wait for it.
struct MissingDays : Error {
  MissingDays(const Error& error, std::set<int> missing) : Error(error), days(std::move(missing)) {}
  const std::set<int> days;
};

/// Events that wait for the end of their transaction.
///
/// Whoever asks for events from the last that it has seen must miss none, so numbers must become visible in their
/// order. They are therefore taken from a row that stays locked until the commit: a lower number is visible before
/// a higher one exists. All writers take turns for that moment, so it comes last: one statement, and the commit itself.
/// (Without the lock a reader would have to hold back what is younger than the oldest transaction under way, and one
/// long transaction of anybody in the cluster would hold up every push.)
class Events {
 public:
  void add(std::string_view user, std::string_view kind, std::string_view json);
  /// Writes them down; returns the number of the last, or 0. From here on the transaction must end soon.
  std::int64_t tell(Connection& connection);

 private:
  std::int64_t count_ = 0;
  Array users_{Array::Text}, kinds_{Array::Text}, jsons_{Array::Text};
};

/// Forgets the oldest when `last`, the newest of `count`, has come far enough.
void forgetEvents(Connection& connection, std::int64_t last, std::int64_t count);

/// Those of one user in a transaction that is open on the connection; `events` is absent where nothing may be written.
class Records final : public UserRecords {
 public:
  Records(std::string user, Connection& connection, Events* events)
      : user_(std::move(user)), connection_(connection), events_(events) {}

  std::vector<derive::Point> points(double from, double to) override;
  std::vector<derive::Row> rows(derive::Kind kind, double from, double to) override;
  std::vector<derive::Row> numbered(derive::Kind kind, std::int64_t first, std::int64_t last) override;
  void put(derive::Kind kind, const derive::Row& row) override;
  void remove(derive::Kind kind, std::int64_t id) override;
  /// Errors: MissingDays.
  std::vector<derive::Point> add(const std::vector<Position>& batch) override;
  void addCall(const Form& form, const std::vector<std::string>& texts) override;
  void addReset(std::string_view call) override;
  void addLog(std::string_view file, std::string_view content) override;
  void tell(std::string_view kind, std::string_view json) override;

 private:
  Result write(const std::string& sql, const Parameters& parameters);

  const std::string user_;
  Connection& connection_;
  Events* const events_;
};

}  // namespace tarvo::sandbox::postgres

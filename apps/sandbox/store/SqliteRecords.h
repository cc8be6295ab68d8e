#pragma once

#include <string>
#include <vector>

#include "sandbox/store/Database.h"
#include "sandbox/store/LogFolder.h"
#include "sandbox/store/Store.h"

namespace tarvo::sandbox {

/// What both kinds of connection ask of a user's records.
struct SqliteReads {
  explicit SqliteReads(Database& database);

  Database::Statement points, longest, rows, numbered;
};

struct SqliteWrites {
  explicit SqliteWrites(Database& file);

  Database& database;
  Database::Statement addPosition, addBatch, count, put, lengthen, remove, addEvent, forgetEvents;

  /// Returns the event's number.
  std::int64_t tell(std::string_view user, std::string_view kind, std::string_view json);
};

/// Those of one user in a transaction that is open on the connection; `writes` and `logs` are absent where nothing may
/// be written.
class SqliteRecords final : public UserRecords {
 public:
  SqliteRecords(std::string user, SqliteReads& reads, SqliteWrites* writes, LogFolder* logs)
      : user_(std::move(user)), reads_(reads), writes_(writes), logs_(logs) {}

  std::vector<derive::Point> points(double from, double to) override;
  std::vector<derive::Row> rows(derive::Kind kind, double from, double to) override;
  std::vector<derive::Row> numbered(derive::Kind kind, std::int64_t first, std::int64_t last) override;
  void put(derive::Kind kind, const derive::Row& row) override;
  void remove(derive::Kind kind, std::int64_t id) override;
  std::vector<derive::Point> add(const std::vector<Position>& batch) override;
  void addCall(const Form& form, const std::vector<std::string>& texts) override;
  void addReset(std::string_view call) override;
  void addLog(std::string_view file, std::string_view content) override;
  void tell(std::string_view kind, std::string_view json) override { writes().tell(user_, kind, json); }

 private:
  SqliteWrites& writes() const;

  const std::string user_;
  SqliteReads& reads_;
  SqliteWrites* const writes_;
  LogFolder* const logs_;
};

}  // namespace tarvo::sandbox

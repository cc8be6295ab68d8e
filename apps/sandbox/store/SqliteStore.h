#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "sandbox/store/LogFolder.h"
#include "sandbox/store/Store.h"

namespace tarvo::sandbox {

/// A SQLite file that people and tests may read while it is open, and a folder for the log files.
///
///   users(uuid PRIMARY KEY, mobileid UNIQUE, secret, creation_date, mobileos, phone_description, sensors,
///         registrations)
///     One row for each device. `registrations` counts how often it asked for its identity.
///   positions(useruuid, id INTEGER, received INTEGER, app_name, date_localisation, date_mobile, lon, lat, acc, speed,
///             bearing, alt, provider, service_action, terramesh_data_version, time REAL, PRIMARY KEY(useruuid, id))
///     `id` is the number under "unique_position_id_for_app"; the other columns hold the texts as they came. The
///     first arrival's data stay, `received` counts the arrivals. `time` is the date in seconds since 1970; it is NULL
///     for a position without a readable date and place.
///   batches(n INTEGER PRIMARY KEY, useruuid, first, last, count)
///     One row for each accepted upload: the numbers of its first and last position and how many it held.
///   tokens(n INTEGER PRIMARY KEY, useruuid, token, envir, app_id, tokenusage)
///   tags(n INTEGER PRIMARY KEY, useruuid, call, name, value, envir, app_id)
///   subscriptions(n INTEGER PRIMARY KEY, useruuid, call, subscription, envir, app_id, notification)
///     One row for each accepted call, in their order, with the texts as they came; repeats too. `call` is "set" or
///     "unset", "register" or "unregister"; what a call does not carry is NULL.
///   resets(n INTEGER PRIMARY KEY, useruuid, call)
///     `call` is "resetbackend" or "resetgeoprofile".
///   logs(useruuid, file, bytes, received, PRIMARY KEY(useruuid, file))
///     One row for each log file of a user: its size, and how often it came.
///   requests(n INTEGER PRIMARY KEY, method, path, status, at, useruuid, bytes, fault)
///     One row for each request that was answered, in the order of the answers. `path` is the target as it came, with
///     its query; `at` is in milliseconds since 1970.
///   units(useruuid PRIMARY KEY, positions, repeats, highest, seen, id, time, lon, lat)
///     What is counted of each user that has sent positions, and the newest of them.
///   derived(useruuid, kind, id, begins, ends, json), spans(useruuid, kind, longest)
///     What is derived, and how long the longest row of a kind is: no row that begins earlier than that before a
///     moment touches it.
///   hosts(useruuid PRIMARY KEY, connected, at, health)
///     Until when a host is connected, and what it reported last and when.
///   events(n INTEGER PRIMARY KEY, useruuid, kind, json)
///     The newest of what those who watch are told.
///
/// A file of an earlier version gets what it lacks when it is opened.
/// Threads: any. Writers take turns; readers have a connection of their own and do not hold up writers.
/// Errors: std::runtime_error with SQLite's text, std::system_error for log files.
class SqliteStore final : public Store {
 public:
  SqliteStore(const std::filesystem::path& file, const std::filesystem::path& logFolder);
  ~SqliteStore() override;

  std::string_view name() const override { return "sqlite"; }
  Identity identify(const Device& device) override;
  bool knows(const Credentials& user) override;
  void change(const std::string& user, const std::function<void(UserRecords&)>& work) override;
  void look(const std::string& user, const std::function<void(derive::Records&)>& work) override;
  void addRequest(const RequestRow& request) override;
  std::vector<RequestRow> requests(std::int64_t before, std::int64_t limit) override;
  std::int64_t requestCount() override;
  Holdings holdings() override;
  std::vector<Unit> units() override;
  std::optional<Unit> unit(const std::string& user) override;
  std::vector<Held> positions(const std::string& user, std::int64_t first, std::int64_t last,
                              std::int64_t limit) override;
  Ledger ledger(const std::string& user, std::int64_t limit) override;
  std::vector<LogFile> logs(const std::string& user) override;
  std::optional<std::string> log(const std::string& user, const std::string& file) override;
  std::int64_t tell(const std::string& user, std::string_view kind, std::string_view json) override;
  std::vector<Event> events(std::int64_t after, std::int64_t limit, const std::string& user) override;
  std::int64_t lastEvent() override;
  void connected(const std::string& user, std::int64_t until) override;
  void setHealth(const std::string& user, const Health& health) override;
  std::optional<Health> health(const std::string& user) override;

 private:
  struct Writer;
  struct Reader;

  LogFolder logs_;
  std::mutex writing_, reading_;
  std::unique_ptr<Writer> writer_;
  std::unique_ptr<Reader> reader_;
};

}  // namespace tarvo::sandbox

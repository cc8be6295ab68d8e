#pragma once

#include <functional>
#include <memory>
#include <string>

#include "sandbox/store/Store.h"

namespace tarvo::sandbox::postgres {

class Pool;

/// A PostgreSQL database (14 or later, encoding UTF8). Tables and columns are those of SqliteStore, and hold the same,
/// but for these:
///
///   positions(useruuid, id, day, time, and the texts), partitioned by day
///     positions_2024_06_15 holds those of that day (UTC), and is made with the first of them; positions_other those
///     without a day of their own (see partitionDay), whose `day` is NULL. A day that is dropped takes its positions
///     with it, and nothing else.
///   numbers(useruuid, block, ids int4multirange, held, first_day, last_day), repeats(useruuid, id, arrivals)
///     Which numbers have come. No index of a partitioned table can say that a number is unique whatever its day, and
///     to look into every day would cost more with each. So the numbers themselves are kept, apart from the positions:
///     a row for each 4,096 of them that says which of these have come, `ids` from 0 to 4,095. That is exact, holds no
///     more than one range for a block that is complete, is looked at by a batch where the batch's numbers are, shows
///     the holes, and still knows the numbers of days that were dropped. It also says on which days a block's positions
///     lie, so that who asks by number looks at these days alone. Numbers that came again have a row in `repeats`.
///   units(useruuid, positions, repeats, highest, batches, id, time, lon, lat)
///     One row from the first registration on. A transaction that changes the user begins by locking it.
///   hosts(useruuid, seen, connected, at, health)
///     `seen`, which changes with every request, is here, where nobody holds a lock for long.
///   logs(useruuid, file, content bytea, received)
///   sandbox(version, events, requests)
///     One row: the last number of an event and of a request. See Events.
///
/// Threads: any; each call takes one of a bounded number of connections. Errors: postgres::Error. After a restart of
/// the server the next call connects anew; one that was under way fails.
class PostgresStore final : public Store {
 public:
  explicit PostgresStore(const std::string& url);
  ~PostgresStore() override;

  std::string_view name() const override { return "postgresql"; }
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
  const std::unique_ptr<Pool> pool_;
};

}  // namespace tarvo::sandbox::postgres

#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sandbox/Bodies.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tarvo::sandbox {

struct Identity {
  std::string uuid, secret, creationDate;
};

/// How much was received; a repeat is a position that came again under a number that was known.
struct Holdings {
  std::int64_t users = 0, positions = 0, repeats = 0, batches = 0;
  /// Numbers between 0 and the highest of each user that never came.
  std::int64_t missing = 0;
};

/// What the backend keeps, in a SQLite file that people and tests may read while it is open.
///
///   users(uuid PRIMARY KEY, mobileid UNIQUE, secret, creation_date, mobileos, phone_description, sensors,
///         registrations)
///     One row for each device. `registrations` counts how often it asked for its identity.
///   positions(useruuid, id INTEGER, received INTEGER, app_name, date_localisation, date_mobile, lon, lat, acc, speed,
///             bearing, alt, provider, service_action, terramesh_data_version, PRIMARY KEY(useruuid, id))
///     `id` is the number under "unique_position_id_for_app"; the other columns hold the texts as they came. The
///     first arrival's data stay, `received` counts the arrivals.
///   batches(n INTEGER PRIMARY KEY, useruuid, first, last, count)
///     One row for each accepted upload: the numbers of its first and last position and how many it held.
///
/// A batch is stored as a whole or not at all.
/// Threads: any, one at a time inside. Errors: std::runtime_error with SQLite's text.
class Archive {
 public:
  explicit Archive(const std::filesystem::path& file);
  ~Archive();
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  /// The identity of the device, made at its first call.
  Identity identify(const Device& device);
  void store(const std::string& user, const std::vector<Position>& batch);

  bool knows(const Credentials& user);
  Holdings holdings();

 private:
  using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

  void run(const char* sql);
  Statement prepare(const std::string& sql);
  bool step(sqlite3_stmt* statement);

  std::mutex mutex_;
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> database_;
  Statement addPosition_, addBatch_, findUser_;
};

}  // namespace tarvo::sandbox

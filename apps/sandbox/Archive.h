#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/Bodies.h"

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
///   tokens(n INTEGER PRIMARY KEY, useruuid, token, envir, app_id, tokenusage)
///   tags(n INTEGER PRIMARY KEY, useruuid, call, name, value, envir, app_id)
///   subscriptions(n INTEGER PRIMARY KEY, useruuid, call, subscription, envir, app_id, notification)
///     One row for each accepted call, in their order, with the texts as they came; repeats too. `call` is "set" or
///     "unset", "register" or "unregister"; what a call does not carry is NULL.
///   resets(n INTEGER PRIMARY KEY, useruuid, call)
///     `call` is "resetbackend" or "resetgeoprofile".
///   logs(file PRIMARY KEY, useruuid, bytes, received)
///     One row for each log file: who sent it last, its size, and how often it came.
///   requests(n INTEGER PRIMARY KEY, method, path, status)
///     One row for each request that was answered, in the order of the answers. `path` is the target as it came, with
///     its query.
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
  /// `texts` are those of the form's keys, in their order.
  void storeCall(const std::string& user, const Form& form, const std::vector<std::string>& texts);
  void storeReset(const std::string& user, std::string_view call);
  void storeLog(const std::string& user, std::string_view file, std::size_t bytes);
  void storeRequest(std::string_view method, std::string_view path, int status);

  bool knows(const Credentials& user);
  Holdings holdings();

 private:
  struct Open;

  std::mutex mutex_;
  std::unique_ptr<Open> open_;
};

}  // namespace tarvo::sandbox

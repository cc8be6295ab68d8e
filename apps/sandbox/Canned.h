#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo::sandbox {

/// What the backend pretends to have derived from the positions, the same for every user. Objects are JSON texts,
/// passed on with their values as they are, whatever keys they hold.
struct Canned {
  std::optional<std::string> prediction;  ///< goes out with "success" true, unless it has a "success" of its own
  std::vector<std::string> trips;         ///< those without a whole number as "pasttrip_id" belong to every range
  std::vector<std::string> pois;
  std::optional<std::int64_t> logLevel;

  /// The counters in the answer to a batch; those not given are the prediction's "prediction_id", the highest
  /// "pasttrip_id" and the number of places, each 0 without.
  std::optional<std::int64_t> lastPredictionID, lastPasttripID, poiVersion;
};

/// From a JSON object {"prediction":{...}, "trips":[{...}], "pois":[{...}], "poi_version":N, "log_level":N}, each key
/// optional and no other allowed. Errors: std::runtime_error that says what is wrong.
Canned parseCanned(std::string_view text);

/// The same from a file; errors name it.
Canned readCanned(const std::filesystem::path& file);

/// What is answered from canned data; all answers are JSON texts.
///
/// Threads: any. Errors: std::runtime_error from `serve`, which then changes nothing.
class Derived {
 public:
  Derived();
  ~Derived();

  /// From now on; resets are forgotten.
  void serve(const Canned& canned);
  /// Whether there was such a call.
  bool given() const;

  /// A reset by this user: from now on there are no past trips for it, or neither prediction nor places.
  void forgetHistory(const std::string& user);
  void forgetGeoProfile(const std::string& user);

  std::string counters(const std::string& user) const;
  std::string prediction(const std::string& user) const;
  /// Those with first < id <= last, by id.
  std::string pastTrips(const std::string& user, std::int64_t first, std::int64_t last) const;
  std::string places(const std::string& user) const;
  std::string configuration() const;

 private:
  struct Content;

  mutable std::mutex mutex_;
  std::unique_ptr<const Content> content_;
  bool given_ = false;
  std::set<std::string> withoutHistory_, withoutGeoProfile_;
};

}  // namespace tarvo::sandbox

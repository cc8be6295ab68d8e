#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "sandbox/Canned.h"

namespace tarvo::sandbox {

/// What is answered from canned data; all answers are JSON texts.
///
/// Threads: any. Errors: std::runtime_error from `serve`, which then changes nothing.
class Derived {
 public:
  Derived();
  ~Derived();

  /// From now on; resets are forgotten.
  void serve(const Canned& canned);

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
  std::set<std::string> withoutHistory_, withoutGeoProfile_;
};

}  // namespace tarvo::sandbox

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarvo::sandbox::derive {

/// A position as far as the derivation looks at it. Times are seconds since 1970 (UTC), coordinates degrees (WGS 84);
/// accuracy in metres and speed in m/s are negative where they are unknown.
struct Point {
  std::int64_t id = 0;
  double time = 0, lon = 0, lat = 0, accuracy = -1, speed = -1;
};

/// What is derived for a user.
enum class Kind { Stay, Trip, Place, Prediction, State };

/// One derived object: its number (unique within user and kind), the span of time that it covers in seconds since
/// 1970, and its content, a JSON text whose form is the derivation's own.
struct Row {
  std::int64_t id = 0;
  double from = 0, to = 0;
  std::string json;
};

/// What a store keeps of one user, as the derivation reads and writes it: inside one transaction, in which nobody else
/// changes this user. Threads: one. Errors: std::runtime_error of the store, which undoes the transaction.
class Records {
 public:
  virtual ~Records() = default;

  /// Those with from <= time <= to, by time, then number.
  virtual std::vector<Point> points(double from, double to) = 0;

  /// Those whose span touches [from, to], by `from`, then number.
  virtual std::vector<Row> rows(Kind kind, double from, double to) = 0;
  /// Those with first < id <= last, by number.
  virtual std::vector<Row> numbered(Kind kind, std::int64_t first, std::int64_t last) = 0;
  /// In place of one with this number.
  virtual void put(Kind kind, const Row& row) = 0;
  virtual void remove(Kind kind, std::int64_t id) = 0;
};

}  // namespace tarvo::sandbox::derive

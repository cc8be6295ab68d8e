#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <string_view>

namespace tarvo::faults {

/// What every driver understands: `--seed N` (default 1), `--runs N` (default: what ./test takes) and `--only TEXT`,
/// the rows whose name contains it.
///
/// Threads: one. A fault that is found is told with what repeats it; `end` gives the exit status.
class Driver {
 public:
  Driver(std::string kind, int count, char** arguments, std::int64_t defaultRuns)
      : runs(defaultRuns), kind_(std::move(kind)) {
    for (int i = 1; i + 1 < count; i += 2) {
      const std::string_view name = arguments[i];
      if (name == "--seed") seed = std::strtoull(arguments[i + 1], nullptr, 10);
      if (name == "--runs") runs = std::strtoll(arguments[i + 1], nullptr, 10);
      if (name == "--only") only = arguments[i + 1];
    }
    random.seed(seed);
  }

  /// Counts a thing that must hold.
  void expect(bool holds, const std::string& otherwise) {
    ++checks_;
    if (holds) return;
    ++faults_;
    std::cerr << kind_ << " --seed " << seed << ": " << otherwise << std::endl;
  }

  /// 0 up to and including `highest`.
  std::int64_t upTo(std::int64_t highest) { return std::uniform_int_distribution<std::int64_t>(0, highest)(random); }

  /// The last line of a driver: `kill: 60 runs, 1234 checks, 0 faults`. A driver that checked nothing has failed.
  int end(std::int64_t done) const {
    std::cout << kind_ << ": " << done << " runs, " << checks_ << " checks, " << faults_ << " faults" << std::endl;
    return faults_ == 0 && checks_ > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
  }

  std::uint64_t seed = 1;
  std::int64_t runs;
  std::string only;
  std::mt19937_64 random;

 private:
  std::string kind_;
  std::int64_t checks_ = 0, faults_ = 0;
};

}  // namespace tarvo::faults

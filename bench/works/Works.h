#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace tarvo::bench {

/// A piece of work that can be repeated: what the SDK does, or the least code that does the same.
///
/// The timed figures and the instruction counts run the same works. Each is made on first use, so a process pays only
/// for what it runs.
struct Work {
  enum class Timing { rate, cpu };

  std::string name;
  Timing timing;         ///< items per second of real time, or CPU time of the calling thread for one item
  std::int64_t atATime;  ///< items in one repetition
  std::function<void(std::int64_t items)> run;
};

/// All works on the home `home`, and for the limits on a copy of its store that is made beside it.
/// Before they are handed out it is checked that both sides of a pair do the same.
const std::vector<Work>& works(const std::filesystem::path& home);

/// Ends the process unless the stores hold what the works have been asked to add.
void checkWorks();

}  // namespace tarvo::bench

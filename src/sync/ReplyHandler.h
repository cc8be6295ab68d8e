#pragma once

#include <string>

namespace tarvo {

/// Reads the log endpoint's answers and deletes a log file once the backend holds it.
///
/// Threads: any; runs to its end on the caller's thread. Errors: never throws; what cannot be read is logged.
class ReplyHandler {
 public:
  void networkManagerReceivedSomeData(const std::string& data) const;
};

}  // namespace tarvo

#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tarvo::sandbox {

/// One request to the contract's paths and its answer, as they went over the wire.
struct Exchange {
  std::string_view method, target, contentType;
  std::string_view credentials;  ///< whose they were: "account", or else "user"
  std::string_view body, answer;
  int status = 0;
  bool planned = false;  ///< the answer is what a fault or canned data made it, not what the backend would say
};

/// Writes down what is exchanged, a JSON object a line, for a check against docs/openapi.yaml: into a file of its own
/// in the folder that the environment variable TARVO_SANDBOX_EXCHANGES names; nothing without it.
///
/// Threads: any. Errors: none; what cannot be written is left out.
class Exchanges {
 public:
  Exchanges();

  void add(const Exchange& exchange);

 private:
  std::mutex mutex_;
  std::string file_;
};

}  // namespace tarvo::sandbox

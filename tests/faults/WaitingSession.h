#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Guarded.h"
#include "platform/urlsession/URLSession.h"

// A session without network, which takes the place of the library's at link time: requests wait for the driver's
// answer. For one source file of a program.

namespace tarvo::platform {

/// Requests that wait for their answer.
inline Guarded<std::vector<DataTaskCompletion>>& asked() {
  static auto* all = new Guarded<std::vector<DataTaskCompletion>>;
  return *all;
}

struct WaitingTask final : URLSessionDataTask {
  explicit WaitingTask(DataTaskCompletion its) : completion(std::move(its)) {}
  void resume() override {
    asked().update([&](auto& all) { all.push_back(std::exchange(completion, nullptr)); });
  }
  DataTaskCompletion completion;
};

struct URLSession::State {};
URLSession::URLSession() : state_(new State) {}
void URLSession::endAll() {}
URLSession& URLSession::shared() {
  static auto* session = new URLSession;
  return *session;
}
std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest, DataTaskCompletion completion) {
  return std::make_shared<WaitingTask>(std::move(completion));
}
std::shared_ptr<URLSessionDataTask> URLSession::uploadTask(URLRequest, std::filesystem::path, SerialQueue&,
                                                           DataTaskCompletion completion) {
  return std::make_shared<WaitingTask>(std::move(completion));
}
bool setTransferOptions(TransferOptions) { return true; }
TransferOptions transferOptions() { return {}; }
std::string hostToConnectTo(std::string_view urlOrName) { return hostOf(urlOrName); }

}  // namespace tarvo::platform

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/SerialQueue.h"
#include "platform/urlsession/URLSession.h"

namespace tarvo::test {

struct Outcome {
  std::optional<std::string> data;
  std::optional<platform::HTTPURLResponse> response;
  std::optional<platform::Error> error;

  int status() const { return response ? response->statusCode : 0; }
  std::int64_t code() const { return error ? error->code : 0; }
};

/// Sends the request through the shared session.
inline void start(platform::URLRequest request, platform::DataTaskCompletion completion = {}) {
  platform::URLSession::shared().dataTask(std::move(request), std::move(completion))->resume();
}

/// Sends the request, with the file as its body if one is named, and waits for its completion.
inline Outcome fetch(platform::URLRequest request, const std::filesystem::path& file = {}) {
  static auto* uploads = new platform::SerialQueue("test.uploads");
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto outcome = promise->get_future();
  const auto tell = [promise](auto data, auto response, auto error) {
    promise->set_value({std::move(data), std::move(response), std::move(error)});
  };
  auto& session = platform::URLSession::shared();
  (file.empty() ? session.dataTask(std::move(request), tell)
                : session.uploadTask(std::move(request), file, *uploads, tell))
      ->resume();
  if (outcome.wait_for(std::chrono::seconds(30)) == std::future_status::ready) return outcome.get();
  ADD_FAILURE() << "no completion within 30 s";
  return {};
}

}  // namespace tarvo::test

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

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

/// Resumes a task that tells its outcome to what it is given, and waits for that.
template <class MakeTask>
Outcome outcomeOf(const MakeTask& makeTask) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto outcome = promise->get_future();
  makeTask([promise](auto data, auto response, auto error) {
    promise->set_value({std::move(data), std::move(response), std::move(error)});
  })->resume();
  if (outcome.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    ADD_FAILURE() << "no completion within 30 s";
    return {};
  }
  return outcome.get();
}

/// Sends the request through the shared session and waits for its completion.
inline Outcome fetch(platform::URLRequest request) {
  return outcomeOf([&](auto completion) {
    return platform::URLSession::shared().dataTask(std::move(request), std::move(completion));
  });
}

/// The same with a file as the body.
inline Outcome upload(platform::URLRequest request, const std::filesystem::path& file, platform::SerialQueue& queue) {
  return outcomeOf([&](auto completion) {
    return platform::URLSession::shared().uploadTask(std::move(request), file, queue, std::move(completion));
  });
}

}  // namespace tarvo::test

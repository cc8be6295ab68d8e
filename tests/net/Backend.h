#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "urlsession/Servers.h"

namespace tarvo::test {

/// A backend on loopback: answers as scripted and keeps a diary of what it was asked.
class Backend {
 public:
  struct Answer {
    int status = 200;
    std::string body;
    std::function<void()> before;  ///< runs before the answer leaves
    bool broken = false;           ///< the connection breaks inside the body
  };

  Backend() {
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
      serve(request, response);
    };
    server_.Get(".*", handler);
    server_.Post(".*", handler);
    server_.set_keep_alive_max_count(1);
  }

  std::string address() const { return server_.url("/api"); }
  void stop() { server_.stop(); }

  /// The answer to a path behind the client id, query left out; other paths get 200 without a body.
  void answer(const std::string& path, Answer answer) {
    std::lock_guard lock(mutex_);
    answers_[path] = std::move(answer);
  }
  /// What was asked since the last call of this.
  std::vector<httplib::Request> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
  }
  /// The same as "METHOD path?query", blanks between, sorted: transfers run side by side.
  std::string takeTargets() {
    std::vector<std::string> targets;
    for (const auto& request : take()) targets.push_back(request.method + " " + request.target.substr(kPrefix.size()));
    std::sort(targets.begin(), targets.end());
    std::string all;
    for (const auto& target : targets) all += (all.empty() ? "" : ", ") + target;
    return all;
  }

 private:
  inline static const std::string kPrefix = "/api/v1/acme/";

  void serve(const httplib::Request& request, httplib::Response& response) {
    Answer answer;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      const auto found = answers_.find(request.path.substr(std::min(kPrefix.size(), request.path.size())));
      if (found != answers_.end()) answer = found->second;
    }
    if (answer.before) answer.before();
    response.status = answer.status;
    if (answer.broken)
      response.set_content_provider(100, "text/plain",
                                    [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
    else
      response.set_content(answer.body, "application/json");
  }

  std::mutex mutex_;
  std::map<std::string, Answer> answers_;
  std::vector<httplib::Request> requests_;
  Running<> server_;  // the first to go
};

}  // namespace tarvo::test

#pragma once

#include <gtest/gtest.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "settings/Settings.h"
#include "support/DiaryEngine.h"
#include "support/LogDiary.h"
#include "support/Servers.h"
#include "support/TempDir.h"

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

/// With the client that the engine itself would have.
class ClientEngine final : public DiaryEngine {
 public:
  NetworkManager& client() override {
    static auto* own = new NetworkManager;
    return *own;
  }
};

/// A client, a backend that it talks to and an engine that it reports to.
class ClientTest : public ::testing::Test {
 protected:
  ClientTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    settings.setRemoteWebServerURL(backend.address());
    settings.setClientID("acme");
    EngineLink::install(&engine);
  }

  void identify() {
    settings.userUUID.set("user-1");
    settings.storeUserSecret("s3cret");
  }
  static void finish() { ASSERT_TRUE(platform::WorkInFlight::waitUntilIdle(platform::Seconds(20))); }
  /// Runs an operation of the client and waits until all that follows from it is done.
  template <class Operation, class... Arguments>
  void call(Operation operation, const Arguments&... arguments) {
    std::invoke(operation, client(), arguments...);
    finish();
  }
  /// Posts the batch 0-9.
  void sendBatch() { call(&NetworkManager::sendDataInBatchToRemoteWebServer, "[]", "0", "9"); }
  /// Built at the first touch.
  NetworkManager& client() {
    if (!client_) client_.emplace();
    return *client_;
  }
  void dropClient() { client_.reset(); }

  /// The texts are in the log in this order.
  static void expectInOrder(std::initializer_list<const char*> texts) {
    long position = -1;
    for (const char* text : texts) {
      const long next = LogDiary::installed().find(text, static_cast<std::size_t>(position + 1));
      ASSERT_GT(next, position) << "missing or too early: " << text;
      position = next;
    }
  }

 private:
  struct Home : TempDir {
    Home() { platform::setHomeDirectory(path()); }
  };
  Home home_;  // before the first touch of anything below

 protected:
  Backend backend;
  DiaryEngine& engine = *new ClientEngine;
  Settings& settings = Settings::shared();
  platform::UserDefaults& defaults = platform::UserDefaults::standard();

 private:
  std::optional<NetworkManager> client_;
};

}  // namespace tarvo::test

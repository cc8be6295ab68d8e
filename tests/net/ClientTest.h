#pragma once

#include <gtest/gtest.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "settings/Settings.h"
#include "support/DiaryEngine.h"
#include "support/LogDiary.h"
#include "support/RawServer.h"
#include "support/TempDir.h"

namespace tarvo::test {

/// A backend on loopback: answers as scripted and keeps a diary of what it was asked.
class Backend {
 public:
  struct Answer {
    int status = 200;
    std::string body;
    std::function<void()> before;  ///< runs before the answer leaves
    bool broken = false;           ///< the connection breaks before its last byte
    std::string headers = "Connection: close\r\n";
  };

  std::string host() const { return server_->host(); }
  void stop() { server_.reset(); }

  /// The answer to a path behind the client id, query left out; other paths get 200 without a body.
  void answer(const std::string& path, Answer answer) {
    std::lock_guard lock(mutex_);
    answers_[path] = std::move(answer);
  }
  /// What was asked since the last call of this.
  std::vector<std::string> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
  }
  /// The same as "METHOD path?query", blanks between, sorted: transfers run side by side.
  std::string takeTargets() {
    std::multiset<std::string> targets;
    for (const auto& request : take()) targets.insert(request.substr(0, request.find(' ') + 1) + pathOf(request));
    std::string all;
    for (const auto& target : targets) all += (all.empty() ? "" : ", ") + target;
    return all;
  }

 private:
  static std::string pathOf(const std::string& request) {
    const auto begin = request.find("/acme/") + 6;
    return request.substr(begin, request.find(' ', begin) - begin);
  }
  void serve(Connection& connection) {
    const std::string request = connection.readRequest(), path = pathOf(request);
    Answer answer;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      const auto found = answers_.find(path.substr(0, path.find('?')));
      if (found != answers_.end()) answer = found->second;
    }
    if (answer.before) answer.before();
    const std::string reply = httpReply(answer.status, answer.body, answer.headers);
    connection.send(reply.substr(0, reply.size() - (answer.broken ? 1 : 0)));
  }

  std::mutex mutex_;
  std::map<std::string, Answer> answers_;
  std::vector<std::string> requests_;
  std::optional<RawServer> server_{std::in_place, [this](Connection& connection) { serve(connection); }};
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
    settings.setRemoteWebServerURL("http://" + backend.host() + "/api");
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
  static void expectInOrder(std::initializer_list<std::string_view> texts) {
    EXPECT_EQ(LogDiary::installed().missingInOrder(texts), "");
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

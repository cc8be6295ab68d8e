#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/Backend.h"
#include "sandbox/Bodies.h"
#include "support/TempDir.h"

namespace tarvo::sandbox {

using Json = nlohmann::json;
using test::TempDir;

inline const Account kAccount{"acme", "key", "se:cret"};
inline const Json kDevice = {{"mobileos", "ios"},
                             {"mobileid", R"({"os":"ios", "iosid":"A-1"})"},
                             {"phone_description", "{phone Linux 12 }"},
                             {"sensors", "unknown"}};

struct Answer {
  int status = 0;
  Json body;
};

/// A started backend and what the device that it has registered says to it.
struct Session {
  explicit Session(const TempDir& dir, int port = 0) : backend(kAccount, dir.path() / "sandbox.sqlite") {
    backend.start(port);
    EXPECT_EQ(registerDevice().status, 200);
  }

  Answer ask(const std::string& method, const std::string& path, const std::string& body, const std::string& name,
             const std::string& secret, const char* type = "application/json") {
    httplib::Client client("127.0.0.1", backend.port());
    if (!name.empty()) client.set_basic_auth(name, secret);
    httplib::Request request;
    request.method = method;
    request.path = "/api/v1/" + path;
    if (method == "POST") request.headers = {{"Content-Type", type}};
    request.body = body;
    const auto result = client.send(request);
    if (!result) return {};
    return {result->status, Json::parse(result->body, nullptr, false)};
  }
  /// As the registered user.
  Answer call(const std::string& path, const std::string& body, const char* type = "application/json") {
    return ask("POST", "acme/" + path, body, uuid(), user.at("secretkey"), type);
  }
  Answer get(const std::string& path) { return ask("GET", "acme/" + path, "", uuid(), user.at("secretkey")); }
  Answer send(const std::string& body) { return call("positions", body); }
  Answer registerDevice(const std::string& body = kDevice.dump()) {
    const Answer answer = ask("POST", "acme/users", body, kAccount.apiKey, kAccount.apiSecret);
    if (answer.status == 200) user = answer.body.at("results").at(0);
    return answer;
  }
  std::string uuid() const { return user.at("uuid"); }

  Json position(int id) const {
    Json position;
    for (const char* key : kPositionKeys) position[key] = std::string("some ") + key;
    position["unique_position_id_for_app"] = std::to_string(id);
    position["useruuid"] = uuid();
    return position;
  }
  std::string batch(int first, int last) const {
    Json positions = Json::array();
    for (int id = first; id <= last; ++id) positions.push_back(position(id));
    return positions.dump();
  }

  Backend backend;
  Json user;
};

/// The rows of a query, "|" between values and a blank between rows.
inline std::string query(const TempDir& dir, const std::string& sql) {
  sqlite3* database = nullptr;
  std::string rows;
  sqlite3_open((dir.path() / "sandbox.sqlite").c_str(), &database);
  const auto append = [](void* text, int columns, char** values, char**) {
    std::string& all = *static_cast<std::string*>(text);
    for (int i = 0; i < columns; ++i)
      all += std::string(i > 0 ? "|" : all.empty() ? "" : " ") + (values[i] ? values[i] : "NULL");
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), append, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
  sqlite3_close(database);
  return rows;
}

}  // namespace tarvo::sandbox

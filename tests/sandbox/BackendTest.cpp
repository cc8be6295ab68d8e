#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/Backend.h"
#include "sandbox/wire/Bodies.h"
#include "support/TempDir.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::json;
using test::TempDir;

const Account kAccount{"acme", "key", "se:cret"};

Json device(const std::string& mobileid) {
  return {{"mobileos", "ios"}, {"mobileid", mobileid}, {"phone_description", "{phone}"}, {"sensors", "unknown"}};
}

/// A started backend and what the device that it has registered says to it. Answers are bodies, or numbers when the
/// status is another than 200.
struct Session {
  explicit Session(const TempDir& dir, int port = 0) : backend(kAccount, dir.path() / "sandbox.sqlite") {
    backend.start(port);
    user = registered("A-1");
  }

  Json ask(const std::string& method, const std::string& path, const std::string& body, const std::string& name,
           const std::string& secret, const char* type = "application/json") {
    httplib::Client client("127.0.0.1", backend.port());
    if (!name.empty()) client.set_basic_auth(name, secret);
    httplib::Request request;
    request.method = method;
    request.path = "/api/v1/" + path;
    if (method == "POST") request.headers = {{"Content-Type", type}};
    request.body = body;
    const auto result = client.send(request);
    if (!result || result->status != 200) return result ? result->status : 0;
    return Json::parse(result->body);
  }
  Json get(const std::string& path) { return ask("GET", "acme/" + path, "", uuid(), user.at("secretkey")); }
  Json post(const std::string& path, const std::string& body, const char* type = "application/json") {
    if (path == "users") return ask("POST", "acme/users", body, kAccount.apiKey, kAccount.apiSecret);
    return ask("POST", "acme/" + path, body, uuid(), user.at("secretkey"), type);
  }
  Json registered(const std::string& mobileid) { return post("users", device(mobileid).dump()).at("results").at(0); }
  std::string uuid() const { return user.at("uuid"); }

  Json position(int id) const {
    Json position;
    for (const char* key : kPositionKeys) position[key] = "some text";
    position["unique_position_id_for_app"] = std::to_string(id);
    position["useruuid"] = uuid();
    return position;
  }
  Json send(const std::vector<int>& ids) {
    Json positions = Json::array();
    for (const int id : ids) positions.push_back(position(id));
    return post("positions", positions.dump());
  }

  Backend backend;
  Json user;
};

TEST(Sandbox, CountsWhatItHoldsOfEachDeviceAcrossRestarts) {
  TempDir dir, other;
  Json first;
  int port = 0;
  {
    Session session(dir);
    first = session.user;
    port = session.backend.port();
    session.send({0, 1, 2});
    session.send({2, 5});
    EXPECT_NE(session.registered("another"), first);
    EXPECT_THROW(Session(other, port), std::runtime_error) << "no two backends share a port";
  }

  Session session(dir, port);

  EXPECT_EQ(session.user, first);
  const Holdings held = session.backend.holdings();
  EXPECT_EQ((std::vector<std::int64_t>{held.users, held.positions, held.repeats, held.batches, held.missing}),
            (std::vector<std::int64_t>{2, 4, 1, 2, 2}));
}

TEST(Sandbox, RefusesBodiesOfAnotherForm) {
  TempDir dir;
  Session session(dir);
  const std::string whole = Json::array({session.position(0)}).dump();
  for (const std::string& body :
       {std::string(), std::string("[]"), std::string("[\"text\"]"), session.position(0).dump(),
        std::string(1 << 20, '['), whole.substr(0, whole.size() - 1), whole + "]"})
    EXPECT_EQ(session.post("positions", body), 400) << body.substr(0, 400);
  const std::tuple<const char*, Json, const char*> cases[] = {
      // What spoils each body; null takes a key away.
      {"positions", session.position(1), R"([{"more":"1"},{"lat":48.5},{"lat":{}},{"lat":null},{"useruuid":"another"},
          {"unique_position_id_for_app":"01"},{"unique_position_id_for_app":"9223372036854775808"}])"},
      {"users", device("A-2"), R"([{"mobileid":""},{"mobileos":null}])"},
      {"tags/unset",
       {{"name", "n"}, {"envir", "e"}, {"app_id", ""}},
       R"([{"more":"1"},{"envir":null},{"app_id":1},{"name":""}])"}};
  for (const auto& [path, good, changes] : cases) {
    const bool list = std::string_view(path) == "positions";
    for (const Json& change : Json::parse(changes)) {
      Json bad = good;
      bad.merge_patch(change);
      EXPECT_EQ(session.post(path, (list ? Json::array({session.position(0), bad}) : bad).dump()), 400) << bad;
    }
    EXPECT_TRUE(session.post(path, (list ? Json::array({good}) : good).dump()).is_object()) << path;
  }
  const std::string part = "--boundary\r\nContent-Disposition: form-data; name=\"file\"; filename=\"";
  for (const char* rest :
       {"a\"\r\n\r\none", "../a\"\r\n\r\none\r\n--boundary--\r\n", "a\"\r\n\r\none\r\n--boundary\r\n"})
    EXPECT_EQ(session.post("uplog", part + rest, "multipart/form-data;boundary=boundary"), 400) << rest;
  EXPECT_EQ(session.backend.holdings().positions, 1) << "nothing of a batch that was refused";
}

TEST(Sandbox, AsksEveryPathForItsUser) {
  TempDir dir;
  Session session(dir);
  const std::string uuid = session.uuid(), secret = session.user.at("secretkey");
  for (const char* path : {"predictions", "pois", "resetbackend", "resetgeoprofile"}) {
    const std::string full = std::string("acme/") + path;
    EXPECT_EQ(session.ask("GET", full, "", uuid, secret + "x"), 401) << path;
    EXPECT_TRUE(session.get(path).is_object()) << path;
    EXPECT_EQ(session.post(path, ""), 404) << "its method";
  }
  for (const char* path : {"userconf?uuid=somebody", "pasttrips?first_pasttrip_id=x&last_pasttrip_id=2"})
    EXPECT_EQ(session.get(path), 400) << path;
  for (const char* path : {"positions", "uplog", "tokens", "tags/set", "subscriptions/register"})
    EXPECT_EQ(session.ask("POST", std::string("acme/") + path, "", "", ""), 401) << path;
  EXPECT_EQ(session.ask("POST", "acme/users", device("A-2").dump(), uuid, secret), 401);
  EXPECT_EQ(session.ask("POST", "other/users", device("A-2").dump(), "key", "se:cret"), 404);
}

}  // namespace
}  // namespace tarvo::sandbox

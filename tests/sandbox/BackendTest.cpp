#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/foundation/Files.h"
#include "sandbox/Backend.h"
#include "sandbox/Bodies.h"
#include "support/TempDir.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::json;
using test::TempDir;

const Account kAccount{"acme", "key", "se:cret"};
const Json kDevice = {{"mobileos", "ios"},
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
std::string query(const TempDir& dir, const std::string& sql) {
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

TEST(Sandbox, GivesOneDeviceOneIdentityAcrossRestartsAtAPortThatNoOtherHas) {
  TempDir dir, other;
  Json first;
  int port = 0;
  {
    Session session(dir);
    first = session.user;
    port = session.backend.port();
    EXPECT_EQ(first.at("creation_date").get<std::string>().size(), 28u) << first;
    EXPECT_EQ(session.registerDevice().body.at("success"), true);
    EXPECT_EQ(session.user, first);
    Json device = kDevice;
    device["mobileid"] = "another";
    EXPECT_EQ(session.registerDevice(device.dump()).status, 200);
    EXPECT_NE(session.uuid(), first.at("uuid"));
    EXPECT_THROW(Session(other, port), std::runtime_error);
  }
  const Session session(dir, port);
  EXPECT_EQ(session.user, first);
  EXPECT_EQ(query(dir, "SELECT registrations FROM users ORDER BY registrations"), "1 3");
}

TEST(Sandbox, CountsRepeatsAndKeepsTheFirstData) {
  TempDir dir;
  Session session(dir);
  const Answer answer = session.send(session.batch(0, 2));
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body,
            Json::parse(R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})"));
  Json changed = session.position(2);
  changed["lon"] = "9";
  EXPECT_EQ(session.send(Json::array({changed, session.position(5)}).dump()).status, 200);

  EXPECT_EQ(query(dir, "SELECT id,received,lon,terramesh_data_version FROM positions WHERE id>1"),
            "2|2|some lon|some terramesh_data_version 5|1|some lon|some terramesh_data_version");
  EXPECT_EQ(query(dir, "SELECT n,first,last,count FROM batches"), "1|0|2|3 2|2|5|2");
  const Holdings held = session.backend.holdings();
  EXPECT_EQ((std::vector<std::int64_t>{held.users, held.positions, held.repeats, held.batches, held.missing}),
            (std::vector<std::int64_t>{1, 4, 1, 2, 2}));
}

TEST(Sandbox, RefusesMalformedBodies) {
  TempDir dir;
  Session session(dir);
  std::vector<std::string> bodies = {
      "", "[]", "null", "[\"text\"]", session.position(0).dump(), std::string(1 << 20, '[')};
  for (const char* change :
       {R"({"more":"1"})", R"({"lat":48.5})", R"({"lat":{}})", R"({"useruuid":"somebody else"})",
        R"({"unique_position_id_for_app":"01"})", R"({"unique_position_id_for_app":"9223372036854775808"})"}) {
    Json position = session.position(1);
    position.update(Json::parse(change));
    bodies.push_back(Json::array({session.position(0), position}).dump());
  }
  Json incomplete = session.position(0);
  incomplete.erase("alt");
  bodies.push_back(Json::array({incomplete}).dump());
  const std::string whole = session.batch(0, 1);
  for (const std::string& body : {whole.substr(0, whole.size() - 1), whole + "]"}) bodies.push_back(body);
  for (const std::string& body : bodies) EXPECT_EQ(session.send(body).status, 400) << body.substr(0, 400);
  EXPECT_EQ(session.backend.holdings().positions, 0);

  Json nameless = kDevice, partial = kDevice;
  nameless["mobileid"] = "";
  partial.erase("mobileos");
  for (const Json& device : {nameless, partial, Json::array({kDevice})})
    EXPECT_EQ(session.registerDevice(device.dump()).status, 400) << device;
}

TEST(Sandbox, MeetsPlannedFaultsInTheirOrderAndOnTheirPathAlone) {
  TempDir dir;
  Session session(dir);
  Faults& faults = session.backend.faults();
  const auto hang = [&](const char* path, const std::string& body) {
    auto status = std::async(std::launch::async, [&session, path, body] { return session.call(path, body).status; });
    EXPECT_TRUE(faults.waitUntilHanging(1, std::chrono::seconds(20)));
    return status;
  };
  faults.answerNext(2, 500);
  faults.hangNext(1);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(session.send(session.batch(0, 0)).status, 500);
  auto hung = hang("positions", session.batch(0, 0));
  EXPECT_EQ(session.send(session.batch(1, 1)).status, 200);
  EXPECT_EQ(session.backend.holdings().positions, 1);
  faults.release();
  EXPECT_EQ(hung.get(), 200);

  faults.answerNext("pois", 1, 500, R"({"success":true,"pois":[{}]})");
  faults.hangNext("positions", 1);
  EXPECT_EQ(session.get("predictions").status, 200);
  const Answer answer = session.get("pois");
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(answer.body.at("pois").size(), 1u);
  EXPECT_EQ(session.get("pois").status, 200);
  auto cut = hang("positions", session.batch(2, 2));
  session.backend.stop();
  EXPECT_EQ(cut.get(), 503);
  EXPECT_EQ(session.backend.holdings().positions, 2);
}

TEST(Sandbox, AsksEveryPathForItsUserAndItsMethod) {
  TempDir dir;
  Session session(dir);
  const std::string uuid = session.uuid(), secret = session.user.at("secretkey"), userconf = "userconf?uuid=" + uuid;
  const auto expect = [&](const std::string& method, const std::string& path, int status) {
    const auto ask = [&](const std::string& how, const std::string& name, const std::string& word) {
      return session.ask(how, "acme/" + path, "", name, word).status;
    };
    EXPECT_EQ(ask(method, "", ""), 401) << path;
    EXPECT_EQ(ask(method, uuid, secret + "x"), 401) << path;
    EXPECT_EQ(ask(method, kAccount.apiKey, kAccount.apiSecret), 401) << path;
    EXPECT_EQ(ask(method, uuid, secret), status) << path;
    EXPECT_EQ(ask(method == "GET" ? "POST" : "GET", uuid, secret), 404) << path;
  };
  for (const char* path : {userconf.c_str(), "pasttrips?first_pasttrip_id=0&last_pasttrip_id=1", "predictions", "pois",
                           "resetbackend", "resetgeoprofile"})
    expect("GET", path, 200);
  for (const char* path :
       {"positions", "uplog", "tokens", "tags/set", "tags/unset", "subscriptions/register", "subscriptions/unregister"})
    expect("POST", path, 400);
  EXPECT_EQ(query(dir, "SELECT group_concat(call) FROM resets"), "resetbackend,resetgeoprofile");
  EXPECT_EQ(session.ask("POST", "acme/users", kDevice.dump(), uuid, secret).status, 401);
  EXPECT_EQ(session.ask("POST", "other/users", kDevice.dump(), "key", "se:cret").status, 404);
  EXPECT_EQ(query(dir, "SELECT sum(registrations) FROM users"), "1");
}

TEST(Sandbox, AnswersFromWhatItWasLastGivenAndForgetsOnReset) {
  TempDir dir;
  Session session(dir);
  const std::string userconf = "userconf?uuid=" + session.uuid();
  const auto counters = [&] {
    const Json body = session.send(session.batch(0, 0)).body;
    return Json{body.at("last_prediction_id"), body.at("last_pasttrip_id"), body.at("last_poi_id")}.dump();
  };
  const auto trips = [&](const std::string& first, const std::string& last) {
    std::string ids;
    const Answer answer = session.get("pasttrips?first_pasttrip_id=" + first + "&last_pasttrip_id=" + last);
    for (const Json& trip : answer.body.at("trips")) ids += trip.at("pasttrip_id").dump() + " ";
    return ids;
  };
  EXPECT_EQ(counters(), "[0,0,0]");
  EXPECT_EQ(session.get("predictions").body.at("success"), false);

  session.backend.serve(parseCanned(R"({"prediction":{"prediction_id":7,"x":[1.5,null,"é"]},"log_level":10,
      "trips":[{"pasttrip_id":12},{"pasttrip_id":7},{"pasttrip_id":9,"pad":{}}],"pois":[{"poi_id":3},{"poi_id":3}]})"));
  EXPECT_EQ(counters(), "[7,12,2]");
  EXPECT_EQ(session.get("predictions").body, Json::parse(R"({"success":true,"prediction_id":7,"x":[1.5,null,"é"]})"));
  EXPECT_EQ(trips("0", "12"), "7 9 12 ");
  EXPECT_EQ(trips("7", "11"), "9 ");
  EXPECT_EQ(session.get("pois").body, Json::parse(R"({"success":true,"pois":[{"poi_id":3},{"poi_id":3}]})"));
  EXPECT_EQ(session.get(userconf).body.at("results").at(0).at("log_level"), 10);

  session.get("resetbackend");
  EXPECT_EQ(counters() + "," + trips("0", "99"), "[7,0,2],");
  session.get("resetgeoprofile");
  EXPECT_EQ(counters(), "[0,0,0]");
  EXPECT_EQ(session.get("pois").body.at("pois"), Json::array());
  session.backend.serve({.prediction = R"({"success":1})", .lastPasttripID = 5, .poiVersion = 40});
  EXPECT_EQ(counters(), "[0,5,40]");
  EXPECT_EQ(session.get("predictions").body, Json::parse(R"({"success":1})"));
}

TEST(Sandbox, KeepsAccountCallsAsTheyCameAndRefusesOthers) {
  TempDir dir;
  Session session(dir);
  const std::pair<const char*, Json> calls[] = {
      {"tokens", {{"token", "t"}, {"envir", "e"}, {"app_id", ""}, {"tokenusage", "apns"}}},
      {"tags/set", {{"name", "n"}, {"value", "v"}, {"envir", "e"}, {"app_id", "a"}}},
      {"tags/unset", {{"name", "n"}, {"envir", "e"}, {"app_id", "a"}}},
      {"subscriptions/register", {{"subscription", "s"}, {"envir", "e"}, {"app_id", "a"}, {"notification", "m"}}},
      {"subscriptions/unregister", {{"subscription", "s"}, {"envir", "e"}, {"app_id", "a"}}}};
  for (const auto& [path, body] : calls) {
    Json more = body, fewer = body, wrong = body;
    more["more"] = "1";
    fewer.erase("envir");
    wrong["app_id"] = 1;
    EXPECT_EQ(session.call(path, body.dump()).body, Json::parse(R"({"success":true})")) << path;
    for (const Json& bad : {more, fewer, wrong, Json::array({body})})
      EXPECT_EQ(session.call(path, bad.dump()).status, 400) << path << " " << bad;
  }
  for (const char* path : {"userconf?uuid=somebody", "pasttrips?first_pasttrip_id=x&last_pasttrip_id=2"})
    EXPECT_EQ(session.get(path).status, 400) << path;
  EXPECT_EQ(query(dir, "SELECT token,envir,app_id,tokenusage FROM tokens"), "t|e||apns");
  EXPECT_EQ(query(dir, "SELECT call,name,value,app_id FROM tags"), "set|n|v|a unset|n|NULL|a");
  EXPECT_EQ(query(dir, "SELECT n,call,subscription,notification FROM subscriptions"),
            "1|register|s|m 2|unregister|s|NULL");
}

TEST(Sandbox, KeepsOneLogForEachNameUpToItsFirstClosingBoundary) {
  TempDir dir;
  Session session(dir);
  const char* type = "multipart/form-data;boundary=boundary";
  const auto opening = [](const std::string& name) {
    return "--boundary\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
  };
  const std::string end = "\r\n--boundary--\r\n", log = opening("TarvoLog_1.txt") + "one\ntwo\n";
  for (const std::string& body : {log + end, log + "\n" + end + end + "more\r\n--boundary\r\n" + end}) {
    const Answer answer = session.call("uplog", body, type);
    EXPECT_EQ(answer.body, Json::parse(R"({"success":true,"results":"uploaded","file":"TarvoLog_1.txt"})"));
  }
  EXPECT_EQ(session.call("uplog", opening("empty") + end, type).status, 200);
  EXPECT_EQ(platform::readFile(session.backend.logs() / "TarvoLog_1.txt").value(), "one\ntwo\n\n");
  const std::string rows = query(dir, "SELECT file,bytes,received FROM logs ORDER BY file");

  for (const std::string& body :
       {std::string(), "one" + end, log, "x" + log + end, log + "\r\n--boundary\r\n" + end, opening("") + end,
        opening("..") + end, opening("../a") + end, opening("/a") + end, opening("a\"; x=\"b") + end})
    EXPECT_EQ(session.call("uplog", body, type).status, 400) << body;
  EXPECT_EQ(session.call("uplog", log + end).status, 400);
  EXPECT_EQ(rows, "TarvoLog_1.txt|9|2 empty|0|1");
  EXPECT_EQ(query(dir, "SELECT file,bytes,received FROM logs ORDER BY file"), rows);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(session.backend.logs()), {}), 2);
}

TEST(Sandbox, SaysWhatIsWrongWithCannedData) {
  TempDir dir;
  const auto file = dir.path() / "canned.json";
  for (const auto& [text, what] : {std::pair{"[]", "object"},
                                   {"{", "no JSON"},
                                   {R"({"trips":[{},1]})", "trips[1]"},
                                   {R"({"log_level":9223372036854775808})", "log_level"},
                                   {R"({"trip":[]})", "trip"}}) {
    std::ofstream(file) << text;
    std::string told;
    try {
      readCanned(file);
    } catch (const std::runtime_error& error) {
      told = error.what();
    }
    EXPECT_TRUE(told.starts_with(file.string()) && told.find(what, file.string().size()) != told.npos) << told;
  }
  EXPECT_THROW(readCanned(dir.path() / "absent"), std::runtime_error);
}

}  // namespace
}  // namespace tarvo::sandbox

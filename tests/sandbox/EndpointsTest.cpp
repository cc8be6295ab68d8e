#include <fstream>

#include "platform/foundation/Files.h"
#include "sandbox/Session.h"

namespace tarvo::sandbox {
namespace {

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
  EXPECT_EQ(query(dir, "SELECT method,path,status FROM requests WHERE n IN (1,5)"),
            "POST|/api/v1/acme/users|200 GET|/api/v1/acme/" + userconf + "|200");

  const struct {
    std::string path, name, secret;
    int status;
  } others[] = {{"acme/users", "", "", 401},         {"acme/users", "key", "se", 401},
                {"acme/users", uuid, secret, 401},   {"other/users", "key", "se:cret", 404},
                {"acme/nothing", uuid, secret, 404}, {"acme/positions/", uuid, secret, 404}};
  for (const auto& [path, name, word, status] : others)
    EXPECT_EQ(session.ask("POST", path, kDevice.dump(), name, word).status, status) << path << " " << name;
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
  EXPECT_EQ(trips("0", "99"), "");
  EXPECT_EQ(session.get(userconf).body, Json::parse(R"({"success":true,"results":[{}]})"));

  session.backend.serve(parseCanned(R"({"prediction":{"prediction_id":7,"x":[1.5,null,"é"]},"log_level":10,
      "trips":[{"pasttrip_id":12},{"pasttrip_id":7},{"pasttrip_id":9,"pad":{}}],"pois":[{"poi_id":3},{"poi_id":3}]})"));
  EXPECT_EQ(counters(), "[7,12,2]");
  EXPECT_EQ(session.get("predictions").body, Json::parse(R"({"success":true,"prediction_id":7,"x":[1.5,null,"é"]})"));
  EXPECT_EQ(trips("0", "12"), "7 9 12 ");
  EXPECT_EQ(trips("7", "11"), "9 ");
  EXPECT_EQ(trips("12", "7"), "");
  EXPECT_EQ(session.get("pois").body, Json::parse(R"({"success":true,"pois":[{"poi_id":3},{"poi_id":3}]})"));
  EXPECT_EQ(session.get(userconf).body.at("results").at(0).at("log_level"), 10);

  session.get("resetbackend");
  EXPECT_EQ(counters() + "," + trips("0", "99"), "[7,0,2],");
  session.get("resetgeoprofile");
  EXPECT_EQ(counters(), "[0,0,0]");
  EXPECT_EQ(session.get("pois").body.at("pois"), Json::array());
  Canned next;
  next.prediction = R"({"success":1})";
  next.poiVersion = 40;
  next.lastPasttripID = 5;
  session.backend.serve(next);
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
    for (const std::string& bad :
         {more.dump(), fewer.dump(), wrong.dump(), Json::array({body}).dump(), body.dump() + "}", std::string()})
      EXPECT_EQ(session.call(path, bad).status, 400) << path << " " << bad;
  }
  for (const char* path : {"userconf", "userconf?uuid=somebody", "pasttrips", "pasttrips?first_pasttrip_id=1",
                           "pasttrips?first_pasttrip_id=x&last_pasttrip_id=2"})
    EXPECT_EQ(session.get(path).status, 400) << path;
  EXPECT_EQ(session.call("tags/unset", R"({"name":"","envir":"e","app_id":"a"})").status, 400);
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

  std::vector<std::string> bodies = {"", "one" + end, log, log + "\r\n--boundary--", "x" + log + end};
  bodies.push_back(log + "\r\n--boundary\r\n" + end);
  bodies.push_back("--boundary\r\n\r\nno header" + end);
  bodies.push_back("--boundary\r\nContent-Type: text/plain\r\n\r\nno name" + end);
  for (const std::string& name : {std::string(), std::string(".."), std::string("../a"), std::string("/a"),
                                  std::string("a\"; x=\"b"), std::string("a\0b", 3)})
    bodies.push_back(opening(name) + end);
  for (const std::string& body : bodies) EXPECT_EQ(session.call("uplog", body, type).status, 400) << body;
  EXPECT_EQ(session.call("uplog", log + end, "multipart/form-data").status, 400);
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
                                   {R"({"prediction":[]})", "prediction"},
                                   {R"({"trips":[{},1]})", "trips[1]"},
                                   {R"({"pois":null})", "pois"},
                                   {R"({"poi_version":"1"})", "poi_version"},
                                   {R"({"log_level":9223372036854775808})", "log_level"},
                                   {R"({"trip":[]})", "trip"}}) {
    std::ofstream(file) << text;
    try {
      readCanned(file);
      ADD_FAILURE() << text;
    } catch (const std::runtime_error& error) {
      const std::string told = error.what();
      EXPECT_TRUE(told.starts_with(file.string()) && told.find(what, file.string().size()) != told.npos) << told;
    }
  }
  EXPECT_THROW(readCanned(dir.path() / "absent"), std::runtime_error);
  Session session(dir);
  Canned canned;
  canned.trips = {"{}", "[]"};
  EXPECT_THROW(session.backend.serve(canned), std::runtime_error);
}

}  // namespace
}  // namespace tarvo::sandbox

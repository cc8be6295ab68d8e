#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <vector>

#include "sandbox/Session.h"

namespace tarvo::sandbox {
namespace {

std::string content(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// A session whose device is registered.
struct Registered : Session {
  explicit Registered(const TempDir& dir, int port = 0) : Session(dir, port) {
    EXPECT_EQ(registerDevice().status, 200);
  }
  std::string counters() {
    const Json body = send(batch(0, 0)).body;
    return body.at("last_prediction_id").dump() + " " + body.at("last_pasttrip_id").dump() + " " +
           body.at("last_poi_id").dump();
  }
  std::string trips(int first, int last) {
    std::string ids;
    const Answer answer =
        get("pasttrips?first_pasttrip_id=" + std::to_string(first) + "&last_pasttrip_id=" + std::to_string(last));
    for (const Json& trip : answer.body.at("trips")) ids += trip.at("pasttrip_id").dump() + " ";
    return ids;
  }
};

TEST(Sandbox, AsksEveryPathForItsUserAndItsMethod) {
  TempDir dir;
  Registered session(dir);
  const std::string secret = session.user.at("secretkey"), userconf = "userconf?uuid=" + session.uuid();
  const auto expect = [&](const std::string& method, const std::string& path, int status, const std::string& others) {
    const std::string target = "acme/" + path;
    EXPECT_EQ(session.ask(method, target, "", "", "").status, 401) << path;
    EXPECT_EQ(session.ask(method, target, "", session.uuid(), secret + "x").status, 401) << path;
    EXPECT_EQ(session.ask(method, target, "", kAccount.apiKey, kAccount.apiSecret).status, 401) << path;
    EXPECT_EQ(session.ask(method, target, "", session.uuid(), secret).status, status) << path;
    EXPECT_EQ(session.ask(others, target, "", session.uuid(), secret).status, 404) << path;
  };
  for (const std::string& path : {userconf, std::string("pasttrips?first_pasttrip_id=0&last_pasttrip_id=1")})
    expect("GET", path, 200, "POST");
  for (const char* path : {"predictions", "pois", "resetbackend", "resetgeoprofile"}) expect("GET", path, 200, "POST");
  for (const char* path :
       {"positions", "uplog", "tokens", "tags/set", "tags/unset", "subscriptions/register", "subscriptions/unregister"})
    expect("POST", path, 400, "GET");
  EXPECT_EQ(query(dir, "SELECT group_concat(call) FROM resets"), "resetbackend,resetgeoprofile");
  EXPECT_EQ(query(dir, "SELECT method,path,status FROM requests WHERE n IN (1,5)"),
            "POST|/api/v1/acme/users|200 GET|/api/v1/acme/" + userconf + "|200");
}

TEST(Sandbox, AnswersFromWhatItWasLastGivenAndForgetsOnReset) {
  TempDir dir;
  Registered session(dir);
  EXPECT_EQ(session.counters(), "0 0 0");
  EXPECT_EQ(session.get("predictions").body.at("success"), false);
  EXPECT_EQ(session.trips(0, 99), "");
  EXPECT_EQ(session.get("userconf?uuid=" + session.uuid()).body, Json::parse(R"({"success":true,"results":[{}]})"));

  session.backend.serve(parseCanned(R"({"prediction":{"prediction_id":7,"x":[1.5,null,"é"]},"log_level":10,
      "trips":[{"pasttrip_id":12},{"pasttrip_id":7},{"pasttrip_id":9,"pad":{}}],"pois":[{"poi_id":3},{"poi_id":3}]})"));
  EXPECT_EQ(session.counters(), "7 12 2");
  EXPECT_EQ(session.get("predictions").body, Json::parse(R"({"success":true,"prediction_id":7,"x":[1.5,null,"é"]})"));
  EXPECT_EQ(session.trips(0, 12), "7 9 12 ");
  EXPECT_EQ(session.trips(7, 11), "9 ");
  EXPECT_EQ(session.trips(12, 7), "");
  EXPECT_EQ(session.get("pois").body, Json::parse(R"({"success":true,"pois":[{"poi_id":3},{"poi_id":3}]})"));
  EXPECT_EQ(session.get("userconf?uuid=" + session.uuid()).body.at("results").at(0).at("log_level"), 10);
  for (const char* path : {"userconf", "userconf?uuid=somebody", "pasttrips", "pasttrips?first_pasttrip_id=1",
                           "pasttrips?first_pasttrip_id=x&last_pasttrip_id=2"})
    EXPECT_EQ(session.get(path).status, 400) << path;

  session.get("resetbackend");
  EXPECT_EQ(session.counters() + "," + session.trips(0, 99), "7 0 2,");
  session.get("resetgeoprofile");
  EXPECT_EQ(session.counters(), "0 0 0");
  EXPECT_EQ(session.get("pois").body.at("pois"), Json::array());
  Canned next;
  next.prediction = R"({"success":1})";
  next.poiVersion = 40;
  next.lastPasttripID = 5;
  session.backend.serve(next);
  EXPECT_EQ(session.counters(), "0 5 40");
  EXPECT_EQ(session.get("predictions").body, Json::parse(R"({"success":1})"));
}

TEST(Sandbox, KeepsAccountCallsAsTheyCameAndRefusesOthers) {
  TempDir dir;
  Registered session(dir);
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
  EXPECT_EQ(session.call("tags/unset", R"({"name":"","envir":"e","app_id":"a"})").status, 400);
  EXPECT_EQ(query(dir, "SELECT token,envir,app_id,tokenusage FROM tokens"), "t|e||apns");
  EXPECT_EQ(query(dir, "SELECT call,name,value,app_id FROM tags"), "set|n|v|a unset|n|NULL|a");
  EXPECT_EQ(query(dir, "SELECT n,call,subscription,notification FROM subscriptions"),
            "1|register|s|m 2|unregister|s|NULL");
}

TEST(Sandbox, KeepsOneLogForEachNameUpToItsFirstClosingBoundary) {
  TempDir dir;
  Registered session(dir);
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
  EXPECT_EQ(content(session.backend.logs() / "TarvoLog_1.txt"), "one\ntwo\n\n");
  const std::string rows = query(dir, "SELECT file,bytes,received FROM logs ORDER BY file");

  const std::string bodies[] = {"",
                                "one" + end,
                                log,
                                log + "\r\n--boundary--",
                                log + "\r\n--boundary\r\n" + end,
                                "x" + log + end,
                                "--boundary\r\n\r\nno header" + end,
                                "--boundary\r\nContent-Type: text/plain\r\n\r\nno name" + end,
                                opening("") + end,
                                opening("..") + end,
                                opening("../a") + end,
                                opening("/a") + end,
                                opening("a\"; x=\"b") + end,
                                opening(std::string("a\0b", 3)) + end};
  for (const std::string& body : bodies) EXPECT_EQ(session.call("uplog", body, type).status, 400) << body;
  EXPECT_EQ(session.call("uplog", log + end, "multipart/form-data").status, 400);
  EXPECT_EQ(session.call("uplog", log + end).status, 400);
  EXPECT_EQ(rows, "TarvoLog_1.txt|9|2 empty|0|1");
  EXPECT_EQ(query(dir, "SELECT file,bytes,received FROM logs ORDER BY file"), rows);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(session.backend.logs()), {}), 2);
}

TEST(Sandbox, MeetsFaultsOfOnePathWithTheirBodies) {
  TempDir dir;
  Registered session(dir);
  Faults& faults = session.backend.faults();
  faults.answerNext("pois", 1, 500, R"({"success":true,"pois":[{}]})");
  faults.answerNext("tags/set", 1, 503);
  faults.hangNext("uplog", 1);
  EXPECT_EQ(session.get("predictions").status, 200);
  const Answer answer = session.get("pois");
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(answer.body.at("pois").size(), 1u);
  EXPECT_EQ(session.get("pois").status, 200);
  EXPECT_EQ(session.call("tags/set", "").status, 503);
  auto hung = std::async(std::launch::async, [&] { return session.call("uplog", "").status; });
  ASSERT_TRUE(faults.waitUntilHanging(1, std::chrono::seconds(20)));
  faults.release();
  EXPECT_EQ(hung.get(), 400);
}

TEST(Sandbox, ServesAgainAtItsPortButNotBesideAnother) {
  TempDir dir, other;
  int port = 0;
  {
    Registered session(dir);
    port = session.backend.port();
    EXPECT_THROW(Session(other, port), std::runtime_error);
  }
  Registered session(dir, port);
  EXPECT_EQ(query(dir, "SELECT registrations FROM users"), "2");
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

TEST(Sandbox, DemoDataHoldAllThatAClientReads) {
  TempDir dir;
  Registered session(dir);
  session.backend.serve(readCanned(std::filesystem::path(__FILE__).parent_path() / "../../apps/demo/backend.json"));
  EXPECT_EQ(session.counters(), "7 43 5");
  const auto kinds = [](const Json& object) {
    std::string all;
    for (const auto& [key, value] : object.items()) all += key + ":" + value.type_name() + " ";
    return all;
  };
  EXPECT_EQ(kinds(session.get("predictions").body),
            "arrival_name:string arrival_time:string destination_json:object destination_lat:number "
            "destination_lon:number duration:number prediction_id:number probability:number route:object "
            "start_name:string start_time:string success:boolean ");
  EXPECT_EQ(session.trips(0, 43), "41 42 43 ");
  const Answer trips = session.get("pasttrips?first_pasttrip_id=0&last_pasttrip_id=43"), pois = session.get("pois");
  for (const Json& trip : trips.body.at("trips"))
    EXPECT_EQ(kinds(trip),
              "arrival_lat:number arrival_lon:number arrival_time:string departure_lat:number "
              "departure_lon:number pasttrip_id:number route:object start_time:string ");
  EXPECT_EQ(pois.body.at("pois").size(), 3u);
  for (const Json& poi : pois.body.at("pois"))
    EXPECT_EQ(kinds(poi), "lat:number lon:number poi_id:number point_geo_json:object zone_geo_json:object ");
}

}  // namespace
}  // namespace tarvo::sandbox

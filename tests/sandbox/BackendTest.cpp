#include <future>

#include "sandbox/Session.h"

namespace tarvo::sandbox {
namespace {

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
  const auto refuses = [&](const std::string& body) {
    EXPECT_EQ(session.send(body).status, 400) << body.substr(0, 400);
  };
  for (const char* body : {"", "[]", "null", "\"text\"", "[\"text\"]", "[[]]"}) refuses(body);
  for (const char* change :
       {R"({"more":"1"})", R"({"lat":48.5})", R"({"lat":null})", R"({"lat":{}})", R"({"lat":[]})",
        R"({"useruuid":"somebody else"})", R"({"unique_position_id_for_app":"-1"})",
        R"({"unique_position_id_for_app":"01"})", R"({"unique_position_id_for_app":"9223372036854775808"})"}) {
    Json position = session.position(1);
    position.update(Json::parse(change));
    refuses(Json::array({session.position(0), position}).dump());
  }
  const std::string whole = session.batch(0, 1);
  for (const std::string& body : {session.position(0).dump(), whole.substr(0, whole.size() - 1), whole + "]",
                                  session.batch(0, 0).insert(2, R"("lat":"1",)"), std::string(1 << 20, '[')})
    refuses(body);
  Json incomplete = session.position(0);
  incomplete.erase("alt");
  refuses(Json::array({incomplete}).dump());
  EXPECT_EQ(session.backend.holdings().positions, 0);

  Json nameless = kDevice, numeric = kDevice, partial = kDevice;
  nameless["mobileid"] = "";
  numeric["sensors"] = 1;
  partial.erase("mobileos");
  for (const Json& device : {nameless, numeric, partial, Json::array({kDevice}), Json("text")})
    EXPECT_EQ(session.registerDevice(device.dump()).status, 400) << device;
  EXPECT_EQ(session.registerDevice("{").status, 400);
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

}  // namespace
}  // namespace tarvo::sandbox

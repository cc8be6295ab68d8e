#include "sandbox/Session.h"

#include <future>
#include <string>

namespace tarvo::sandbox {
namespace {

TEST(Sandbox, GivesOneDeviceOneIdentityAcrossRestarts) {
  TempDir dir;
  Json first;
  {
    Session session(dir);
    const Answer answer = session.registerDevice();
    ASSERT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body.at("success"), true);
    first = session.user;
    EXPECT_EQ(first.at("creation_date").get<std::string>().size(), 28u) << first;
    ASSERT_EQ(session.registerDevice().status, 200);
    EXPECT_EQ(session.user, first);
    Json other = kDevice;
    other["mobileid"] = "another";
    ASSERT_EQ(session.registerDevice(other).status, 200);
    EXPECT_NE(session.uuid(), first.at("uuid"));
  }
  Session session(dir);
  ASSERT_EQ(session.registerDevice().status, 200);
  EXPECT_EQ(session.user, first);
  EXPECT_EQ(query(dir, "SELECT registrations FROM users ORDER BY registrations"), "1 3");
}

TEST(Sandbox, CountsRepeatsAndKeepsTheFirstData) {
  TempDir dir;
  Session session(dir);
  ASSERT_EQ(session.registerDevice().status, 200);
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
  const Holdings holdings = session.backend.holdings();
  EXPECT_EQ(holdings.users, 1);
  EXPECT_EQ(holdings.positions, 4);
  EXPECT_EQ(holdings.repeats, 1);
  EXPECT_EQ(holdings.batches, 2);
  EXPECT_EQ(holdings.missing, 2);
}

TEST(Sandbox, RefusesWrongCredentialsAndUnknownPaths) {
  TempDir dir;
  Session session(dir);
  ASSERT_EQ(session.registerDevice().status, 200);
  const std::string secret = session.user.at("secretkey");
  const std::string device = kDevice.dump(), batch = session.batch(0, 0);
  struct Case {
    std::string path, body, name, secret;
    int status;
  };
  const Case cases[] = {
      {"acme/users", device, "", "", 401},
      {"acme/users", device, "key", "se", 401},
      {"acme/users", device, session.uuid(), secret, 401},
      {"acme/positions", batch, "", "", 401},
      {"acme/positions", batch, "key", "se:cret", 401},
      {"acme/positions", batch, session.uuid(), "", 401},
      {"acme/positions", "no JSON", session.uuid(), secret + "x", 401},
      {"other/users", device, "key", "se:cret", 404},
      {"acme/nothing", batch, session.uuid(), secret, 404},
      {"acme/positions/", batch, session.uuid(), secret, 404},
  };
  for (const Case& c : cases)
    EXPECT_EQ(session.post(c.path, c.body, c.name, c.secret).status, c.status) << c.path << " " << c.name;
  EXPECT_EQ(session.backend.holdings().positions, 0);
  EXPECT_EQ(query(dir, "SELECT sum(registrations) FROM users"), "1");
}

TEST(Sandbox, RefusesMalformedBodies) {
  TempDir dir;
  Session session(dir);
  ASSERT_EQ(session.registerDevice().status, 200);
  const auto with = [&](const char* key, const Json& value) {
    Json position = session.position(1);
    position[key] = value;
    return Json::array({session.position(0), position}).dump();
  };
  Json incomplete = session.position(0);
  incomplete.erase("alt");
  const std::string whole = session.batch(0, 1);
  std::string twice = session.batch(0, 0);
  twice.insert(2, R"("lat":"1",)");
  const std::string bodies[] = {
      "",
      "[]",
      "null",
      "\"text\"",
      "[\"text\"]",
      "[[]]",
      session.position(0).dump(),
      whole.substr(0, whole.size() - 1),
      whole + "]",
      Json::array({incomplete}).dump(),
      twice,
      with("more", "1"),
      with("lat", 48.5),
      with("lat", nullptr),
      with("lat", Json::object()),
      with("lat", Json::array()),
      with("useruuid", "somebody else"),
      with("unique_position_id_for_app", "-1"),
      with("unique_position_id_for_app", "01"),
      with("unique_position_id_for_app", "9223372036854775808"),
      std::string(1 << 20, '['),
  };
  for (const std::string& body : bodies) EXPECT_EQ(session.send(body).status, 400) << body.substr(0, 400);
  EXPECT_EQ(session.backend.holdings().positions, 0);

  Json nameless = kDevice, numeric = kDevice, partial = kDevice;
  nameless["mobileid"] = "";
  numeric["sensors"] = 1;
  partial.erase("mobileos");
  for (const Json& device : {nameless, numeric, partial, Json::array({kDevice}), Json("text")})
    EXPECT_EQ(session.registerDevice(device).status, 400) << device;
  EXPECT_EQ(session.post("acme/users", "{", "key", "se:cret").status, 400);
}

TEST(Sandbox, MeetsPlannedFaultsInTheirOrder) {
  TempDir dir;
  Session session(dir);
  ASSERT_EQ(session.registerDevice().status, 200);
  Faults& faults = session.backend.faults();
  faults.answerNext(2, 500);
  faults.hangNext(1);
  EXPECT_EQ(session.send(session.batch(0, 0)).status, 500);
  EXPECT_EQ(session.send(session.batch(0, 0)).status, 500);

  auto hung = std::async(std::launch::async, [&] { return session.send(session.batch(0, 0)).status; });
  ASSERT_TRUE(faults.waitUntilHanging(1, std::chrono::seconds(20)));
  EXPECT_EQ(session.send(session.batch(1, 1)).status, 200);
  EXPECT_EQ(session.backend.holdings().positions, 1);
  faults.release();
  EXPECT_EQ(hung.get(), 200);
  EXPECT_EQ(session.backend.holdings().positions, 2);

  faults.hangNext(1);
  auto cut = std::async(std::launch::async, [&] { return session.send(session.batch(2, 2)).status; });
  ASSERT_TRUE(faults.waitUntilHanging(1, std::chrono::seconds(20)));
  session.backend.stop();
  EXPECT_EQ(cut.get(), 503);
  EXPECT_EQ(session.backend.holdings().positions, 2);
}

}  // namespace
}  // namespace tarvo::sandbox

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "sandbox/Backend.h"
#include "support/TempDir.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::ordered_json;
using test::TempDir;

TEST(Rules, ComeFromAFileWhoseErrorsNameTheEntry) {
  TempDir dir;
  const auto file = dir.path() / "f.json";
  const std::pair<std::string, std::string> cases[] = {
      {R"([{"kind":"hang"},{"kind":"drop"}])", R"(entry 2: "kind" is not one of the kinds of fault)"},
      {R"([{"kind":"hang","time":1}])", R"(entry 1: "time" is not known)"},
      {R"([{"kind":"hang","every":0}])", R"(entry 1: "every" is not a whole number from 1 to 1000000000)"},
      {R"([{"kind":"delay","delay":-1}])", R"(entry 1: "delay" is not a number of seconds)"},
      {R"([{"kind":"redirect","location":"/\r\nx"}])", R"(entry 1: "location" is not a URL)"},
      {R"([{"kind":"hang","endpoint":"position"}])", R"(entry 1: "endpoint" is not "*" or an endpoint)"},
      {R"({})", "expected a JSON array of rules"},
      {R"([)", "no JSON: unexpected at byte 2"}};
  for (const auto& [text, expected] : cases) {
    std::ofstream(file) << text;
    try {
      ADD_FAILURE() << readRules(file).size() << text;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), file.string() + ": " + expected);
    }
  }
}

TEST(Faults, HappenWhenTheirRulesAreDueTheFirstBeforeTheOthers) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {R"({"kind":"half","times":2})", R"({"kind":"garbage","endpoint":"pois"})", "half half - -"},
      {R"({"kind":"half","every":2})", R"({"kind":"garbage","every":3,"endpoint":"users"})", "- half garbage half"},
      {R"({"kind":"half","every":2,"times":1})", R"({"kind":"garbage","times":2})", "garbage half garbage -"},
      {R"({"kind":"half","seconds":0.001})", R"({"kind":"delay","delay":0.002,"times":1})", "delay - - -"}};
  for (const auto& [first, second, expected] : cases) {
    Faults faults;
    for (const char* rule : {first, second}) faults.add(readRule(Json::parse(rule)));
    faults.pause(0.002);
    std::string met;
    for (int request = 0; request < 4; ++request) {
      const auto fault = faults.meet("users");
      met += std::string(request == 0 ? "" : " ") + (fault ? std::string(nameOf(fault->kind)) : "-");
    }
    EXPECT_EQ(met, expected) << first << second;
  }
}

/// A backend to which a device registers.
struct Registering {
  explicit Registering(const TempDir& dir) : backend({"acme", "key", "secret"}, dir.path() / "a.sqlite") {
    backend.start();
  }

  Json rules(const char* method, const std::string& path, const std::string& rule = {}) {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.body = rule;
    request.headers = {{"Content-Type", "application/json"}};
    const auto answer = httplib::Client("127.0.0.1", backend.port()).send(request);
    return answer && answer->status == 200 ? Json::parse(answer->body) : Json(answer ? answer->status : 0);
  }
  /// Status and body; "none" without a whole answer.
  std::string registered(const std::string& device) {
    httplib::Client client("127.0.0.1", backend.port());
    client.set_basic_auth("key", "secret");
    const Json body = {{"mobileos", "o"}, {"mobileid", device}, {"phone_description", "p"}, {"sensors", "s"}};
    const auto answer = client.Post("/api/v1/acme/users", body.dump(), "application/json");
    return answer ? std::to_string(answer->status) + answer->body : "none";
  }

  Backend backend;
};

TEST(Faults, SpoilAnswersBeforeOrAfterTheRequestIsHandled) {
  TempDir dir;
  Registering registering(dir);
  const std::tuple<std::string, std::string, int> cases[] = {
      {R"({"kind":"status","status":418,"body":"{}"})", "418{}", 0},
      {R"({"kind":"redirect","body":""})", "302", 0},
      {R"({"kind":"drop-before"})", "none", 0},
      {R"({"kind":"drop-after"})", "none", 1},
      {R"({"kind":"half"})", "none", 1},
      {R"({"kind":"garbage","body":"]"})", "200]", 1},
      {R"({"kind":"types"})", R"(200{"results":[{"creation_date":0,"secretkey":0,"uuid":0}],"success":"true"})", 1},
      {R"({"kind":"skew","delay":-3e8})", R"(200{"results":[{"creation_date":"20)", 1},
      {R"({"kind":"drip","delay":0.02})", R"(200{"results":[{"creation_date":"20)", 1}};
  std::int64_t users = 0;
  for (const auto& [rule, answer, kept] : cases) {
    const Json id = registering.rules("POST", "/live/faults", rule).at("id");
    EXPECT_EQ(registering.registered(rule).substr(0, answer.size()), answer) << rule;
    EXPECT_EQ(registering.backend.holdings().users, users += kept) << rule;
    EXPECT_EQ(registering.rules("GET", "/live/state").at("faults").at(0).at("met"), 1) << rule;
    const Json row = registering.rules("GET", "/live/requests?limit=1").at("requests").at(0);
    EXPECT_EQ(row.at("fault"), Json::parse(rule).at("kind"));
    EXPECT_EQ(row.at("status") == 0, rule.find("drop") != std::string::npos) << row;
    EXPECT_EQ(registering.rules("DELETE", "/live/faults/" + id.dump()), Json::object());
  }
  EXPECT_EQ(registering.rules("POST", "/live/faults", R"({"kind":"x"})"), 400);
}

TEST(Faults, EndEveryWaitWhenTheBackendStopsOrTheRuleGoes) {
  TempDir dir;
  Registering registering(dir);
  std::vector<std::future<std::string>> waiting;
  const auto waits = [&](const char* kind) {
    registering.rules("POST", "/live/faults", Json({{"kind", kind}, {"delay", 1e6}, {"times", 1}}).dump());
    waiting.push_back(std::async(std::launch::async, [&] { return registering.registered("b"); }));
    while (registering.rules("GET", "/live/state").at("faults").dump().find("\"met\":0") != std::string::npos) continue;
  };
  const auto ends = [&] {
    std::string all;
    for (auto& one : waiting) all += one.get().substr(0, 4) + " ";
    waiting.clear();
    return all;
  };
  for (int i = 0; i < 5; ++i) waits("hang");
  EXPECT_EQ(waiting[4].get(), "none") << "one too many for a small server";
  waiting.pop_back();
  EXPECT_EQ(registering.rules("DELETE", "/live/faults"), Json::object());
  EXPECT_EQ(ends(), "200{ 200{ 200{ 200{ ");
  for (const char* kind : {"drip", "delay", "hang"}) waits(kind);
  registering.backend.stop();
  EXPECT_EQ(ends(), "none 503{ 503{ ");
}

}  // namespace
}  // namespace tarvo::sandbox

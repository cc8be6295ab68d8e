#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/Backend.h"
#include "sandbox/live/Guard.h"
#include "sandbox/live/Texts.h"
#include "sandbox/store/SqliteStore.h"
#include "support/TempDir.h"
#include "support/Tls.h"

namespace tarvo::sandbox::live {
namespace {

using test::TempDir;

/// A process on the records of `dir`, with a unit that has sent two positions.
struct Process {
  explicit Process(const TempDir& dir, Backend::Options options = {})
      : store(std::make_unique<SqliteStore>(dir.path() / "a.sqlite", dir.path() / "logs")),
        records(*store),
        user(records.identify({"", "m", "a <b>phone</b>", ""}).uuid),
        backend({"acme", "key", "secret"}, std::move(store), std::move(options)) {
    backend.start();
  }

  httplib::Client client() { return httplib::Client("127.0.0.1", backend.port()); }
  Json ask(const char* method, const std::string& path, const std::string& body = {}, httplib::Headers headers = {}) {
    if (std::string_view(method) == "POST") headers.emplace("Content-Type", "application/json");
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.body = body;
    request.headers = headers;
    const auto answer = client().send(request);
    if (!answer || answer->status != 200) return answer ? answer->status : 0;
    return Json::parse(answer->body);
  }
  Json channel(const std::string& what, const std::string& body) {
    return ask("POST", "/channel/" + user + what, body, {httplib::make_basic_authentication_header("key", "secret")});
  }
  void send(const std::string& kind) {
    records.change(user, [&](UserRecords& of) { of.tell(kind, dump({{"unit", user}})); });
  }

  std::unique_ptr<Store> store;
  Store& records;
  const std::string user;
  Backend backend;
};

/// Reads a stream on a thread of its own until it ends.
class Reader {
 public:
  Reader(const Process& process, std::string path, httplib::Headers headers = {})
      : client_("127.0.0.1", process.backend.port()), thread_([this, path, headers] {
          client_.Get(
              path, headers,
              [this](const httplib::Response& response) {
                const std::lock_guard lock(mutex_);
                status_ = response.status;
                changed_.notify_all();
                return true;
              },
              [this](const char* bytes, std::size_t size) {
                const std::lock_guard lock(mutex_);
                text_.append(bytes, size);
                changed_.notify_all();
                return true;
              });
        }) {}
  ~Reader() {
    client_.stop();
    thread_.join();
  }

  int status() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20), [&] { return status_ != 0; });
    return status_;
  }
  bool hears(const std::string& text) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return text_.find(text) != text_.npos; });
  }

 private:
  httplib::Client client_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int status_ = 0;
  std::string text_;
  std::thread thread_;
};

TEST(Guard, LetsInThisMachineOrWhoHasTheToken) {
  const Guard open("127.0.0.1", ""), closed("0.0.0.0", "t0ken");
  const std::tuple<const Guard*, Visit, int> cases[] = {
      {&open, {"GET", "127.0.0.1:80"}, 0},
      {&open, {"GET", "[::1]:80"}, 0},
      {&open, {"GET", "127.0.0.1.evil.example"}, 403},
      {&open, {"GET", ""}, 403},
      {&open, {"POST", "localhost:80", "http://localhost:80", "", "", "application/json"}, 0},
      {&open, {"POST", "localhost:80", "https://evil.example", "", "", "application/json"}, 403},
      {&open, {"POST", "localhost:80", "null", "", "", "application/json"}, 403},
      {&open, {"POST", "localhost:80", "", "", "", "text/plain"}, 403},
      {&open, {"DELETE", "localhost:80", "https://evil.example"}, 403},
      {&closed, {"GET", "any.example"}, 401},
      {&closed, {"GET", "any.example", "", "Bearer t0ken"}, 0},
      {&closed, {"GET", "any.example", "", "Bearer t0kem"}, 401},
      {&closed, {"GET", "any.example", "", "", "a=b; tarvo_sandbox=t0ken"}, 0},
      {&closed, {"GET", "any.example", "", "", "xtarvo_sandbox=t0ken"}, 401},
      {&closed, {"GET", "any.example", "", "", "", "", "t0ken"}, 0},
      {&closed, {"GET", "any.example", "", "", "", "", "t0ke"}, 401}};
  for (const auto& [guard, visit, expected] : cases)
    EXPECT_EQ(guard->refuses(visit).value_or(0), expected) << visit.host << visit.origin << visit.cookie << visit.token;
}

TEST(Texts, ReadsLogsBackLineByLine) {
  const std::string log = "[[2024-06-15T10:00:01.250Z]]:[DEBUG]:a]]:[b]:\xff<i>\nno line\n[[x\nlast";
  const Json expected = Json::parse(
      R"([{"time":"2024-06-15T10:00:01.250Z","level":"DEBUG","text":"a]]:[b]:\ufffd<i>"},{"text":"no line"}])");
  const Json lines = Json::parse(dump(logLines(log, 0, 2)));
  EXPECT_EQ(lines, Json({{"lines", expected}, {"more", true}}));
  EXPECT_EQ(logLines(log, 2, 2), Json::parse(R"({"lines":[{"text":"[[x"},{"text":"last"}],"more":false})"));
}

TEST(Live, AnswersWhatPeopleAsk) {
  TempDir dir;
  Process process(dir);
  process.records.change(process.user, [](UserRecords& of) {
    of.add({{1, {"1", "u", "", "2024-06-15 10:00:00 +0000", "", "11.5", "48", "x", "3"}}, {3, {"3"}}});
    of.addLog("log 1.txt", "[[t]]:[INFO]:m\n");
  });
  const std::string unit = "/live/units/" + process.user;
  const std::tuple<std::string, Json> cases[] = {
      {"/positions",
       Json::parse(
           R"({"positions":[[1,1718445600000,11.5,48.0,null,3.0],[3,null,null,null,null,null]],"more":false})")},
      {"/positions?first=2&limit=0", Json::parse(R"({"positions":[[3,null,null,null,null,null]],"more":false})")},
      {"/positions?limit=1&last=9", Json::parse(R"({"positions":[[1,1718445600000,11.5,48.0,null,3.0]],"more":true})")},
      {"/ledger", Json::parse(R"({"count":2,"highest":3,"holes":[[0,0],[2,2]],"repeats":[]})")},
      {"/logs", Json::parse(R"({"logs":[{"file":"log 1.txt","bytes":15,"received":1}]})")},
      {"/logs/log%201.txt", Json::parse(R"({"lines":[{"time":"t","level":"INFO","text":"m"}],"more":false})")},
      {"/logs/..%2Fa.sqlite", 404},
      {"/health", Json::object()},
      {"/nothing", 404}};
  for (const auto& [path, expected] : cases) EXPECT_EQ(process.ask("GET", unit + path), expected) << path;
  EXPECT_EQ(process.ask("GET", "/live/units/nobody/positions"), 404);
  EXPECT_EQ(process.ask("GET", "/live/state", "", {{"Host", "evil.example"}}), 403);
  EXPECT_EQ(process.ask("GET", "/api/v1/acme/pois"), 401);
  const Json state = process.ask("GET", "/live/state"), one = state.at("units").at(0);
  EXPECT_EQ((std::tuple{one.at("name"), one.at("missing"), one.at("time"), one.at("connected"), state.at("requests")}),
            (std::tuple{"a <b>phone</b>", 2, 1718445600000, false, 1}));
  const Json rows = process.ask("GET", "/live/requests?limit=5").at("requests");
  EXPECT_EQ(rows.at(0).at("path"), "/api/v1/acme/pois") << "and nothing of what people ask";
}

TEST(Live, ShowsWhatAnotherProcessWritesAndPassesPushesOn) {
  TempDir dir;
  Process one(dir), other(dir);
  EXPECT_EQ(one.ask("POST", "/live/units/" + one.user + "/push", "{}"), 409);
  const auto host = httplib::make_basic_authentication_header("key", "secret");
  EXPECT_EQ(Reader(other, "/channel/" + one.user).status(), 401);
  EXPECT_EQ(Reader(other, "/channel/nobody", {host}).status(), 404);
  Reader page(one, "/live/events");
  ASSERT_TRUE(page.hears("retry"));
  Reader channel(other, "/channel/" + one.user, {host});
  ASSERT_TRUE(page.hears("\"connected\":true"));

  other.send("trips");
  EXPECT_TRUE(page.hears("event: trips\ndata: {\"unit\":\"" + one.user + "\"}\n\n"));

  const std::string n = one.ask("POST", "/live/units/" + one.user + "/push", R"({"a":["x"]})").at("push").dump();
  EXPECT_TRUE(channel.hears("event: push\ndata: {\"push\":" + n + R"(,"payload":{"a":["x"]}})" + "\n\n"));
  EXPECT_EQ(other.channel("/received", R"({"push":)" + n + R"(,"handled":true})"), Json::object());
  EXPECT_TRUE(page.hears("\"push\":" + n + ",\"state\":\"received\""));
  EXPECT_EQ(other.channel("/health", R"({"stored":5})"), Json::object());
  EXPECT_EQ(one.ask("GET", "/live/units/" + one.user + "/health").at("health"), Json({{"stored", 5}}));
  EXPECT_EQ(other.channel("/told", R"({"what":"a\nb"})"), Json::object());
  EXPECT_TRUE(page.hears("\"what\":\"a\\nb\""));
  EXPECT_EQ(other.channel("/told", std::string(5000, '[')), 400);
  EXPECT_TRUE(Reader(one, "/live/events", {{"Last-Event-ID", "0"}}).hears("event: trips")) << "what it has missed";
}

TEST(Live, BoundsItsStreamsAndStops) {
  TempDir dir;
  Backend::Options options;
  options.workers = 10;  // of which two for streams
  Process process(dir, options);
  Reader first(process, "/live/events");
  {
    Reader second(process, "/live/events");
    EXPECT_EQ((std::pair{first.status(), second.status()}), (std::pair{200, 200}));
    EXPECT_EQ(Reader(process, "/live/events").status(), 503);
    EXPECT_TRUE(process.ask("GET", "/live/state").is_object()) << "whatever the streams";
  }
  // The place of a reader who has left is free once the next word to it fails.
  for (int status = 503, tries = 0; status == 503 && tries < 2000; ++tries) {
    process.send("trips");
    status = Reader(process, "/live/events").status();
    if (status == 200) break;
    ASSERT_LT(tries, 1999);
  }
  const auto start = std::chrono::steady_clock::now();
  process.backend.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
}

TEST(Live, SpeaksTls) {
  TempDir dir;
  const test::Trusted certificate;
  Backend::Options options;
  options.certificate = dir.path() / "cert.pem";
  options.key = dir.path() / "key.pem";
  certificate.write(options.certificate);
  certificate.writeKey(options.key);
  Process process(dir, options);
  httplib::Client client(process.backend.origin());
  const auto answer = client.Get("/live/state");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error());
  EXPECT_EQ(answer->status, 200);
  EXPECT_TRUE(process.backend.baseURL().starts_with("https://127.0.0.1:"));
  EXPECT_FALSE(httplib::Client("127.0.0.1", process.backend.port()).Get("/live/state")) << "plain";
}

TEST(Live, GivesThePageWithItsPolicyAndTakesTheTokenOnce) {
  TempDir dir;
  Backend::Options options;
  options.token = "t0ken";
  Process process(dir, options);
  EXPECT_EQ(process.ask("GET", "/"), 401);
  const auto first = process.client().Get("/?token=t0ken");
  ASSERT_TRUE(first && first->status == 303);
  const std::string cookie = first->get_header_value("Set-Cookie");
  EXPECT_EQ(cookie, "tarvo_sandbox=t0ken; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(first->get_header_value("Location"), "/");
  const auto page = process.client().Get("/", {{"Cookie", cookie.substr(0, cookie.find(';'))}});
  ASSERT_TRUE(page && page->status == 200);
  for (const auto& [name, part] : {std::pair{"Content-Security-Policy", "'self'"},
                                   {"X-Content-Type-Options", "nosniff"},
                                   {"Referrer-Policy", "no-referrer"},
                                   {"Content-Type", "text/html"}})
    EXPECT_NE(page->get_header_value(name).find(part), std::string::npos) << name;
  EXPECT_EQ(process.backend.pageURL(), process.backend.origin() + "/?token=t0ken");
}

}  // namespace
}  // namespace tarvo::sandbox::live

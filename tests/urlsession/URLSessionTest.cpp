#include "platform/urlsession/URLSession.h"

#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <latch>

#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "support/Tls.h"
#include "urlsession/Fetch.h"

namespace tarvo::platform {
namespace {

using namespace test;

TEST(URLSession, SendsWhatWasGivenAndNothingElse) {
  std::string seen;
  RawServer server([&seen](const std::string& request) {
    seen = request;
    return httpReply(200);
  });
  const std::string host = "\r\nHost: " + server.host() + "\r\n";
  const std::string large = largeBody();
  const std::pair<URLRequest, std::string> cases[] = {
      {{server.url("/v1//a/../%2e?uuid=A b"), "GET", {}, {}}, ""},
      {{server.url("/v1//a/../%2e?uuid=A%20b"), "GET", {}, {}},
       "GET /v1//a/../%2e?uuid=A%20b HTTP/1.1" + host + "\r\n"},
      {{server.url(), "GET", {{"Accept", "application/json"}, {"content-type", "application/json"}}, {}},
       "GET / HTTP/1.1" + host + "Accept: application/json\r\ncontent-type: application/json\r\n\r\n"},
      {{server.url(), "POST", {{"Content-Length", "7"}, {"X", "a\r\nY: b"}}, "{}"},
       "POST / HTTP/1.1" + host + "Content-Length: 2\r\n\r\n{}"},
      {{server.url(), "POST", {{"Empty", ""}}, {}}, "POST / HTTP/1.1" + host + "Empty:\r\nContent-Length: 0\r\n\r\n"},
      {{server.url(), "PUT", {}, large}, "PUT / HTTP/1.1" + host + "Content-Length: 3000000\r\n\r\n" + large}};
  for (auto [request, sent] : cases) {
    seen.clear();
    request.bytesMoved = std::make_shared<std::atomic<std::uint64_t>>(0);
    fetch(request);
    EXPECT_EQ(*request.bytesMoved, sent.empty() ? 0 : sent.size() + httpReply(200).size());
    EXPECT_TRUE(seen == sent) << request.description() << seen.substr(0, 300);
  }
}

TEST(URLSession, CompletesEachTaskOnceAndOneAtATime) {
  RawServer server([](const std::string&) { return httpReply(200); });
  std::atomic<int> completed{0}, atOnce{0}, wrong{0};
  for (int i = 0; i < 60; ++i) {
    const auto task = URLSession::shared().dataTask({i % 5 == 0 ? "nonsense" : server.url()}, [&](auto, auto, auto) {
      if (atOnce++ != 0) ++wrong;
      std::this_thread::yield();
      --atOnce;
      ++completed;
    });
    for (int times = 0; times < 2; ++times) task->resume();
  }
  EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(60)));
  EXPECT_EQ(completed, 60);
  EXPECT_EQ(wrong, 0) << "side by side";
}

TEST(URLSession, KeepsSecureConnections) {
  const Trusted trusted;
  std::atomic<int> connections{0};
  RawServer server([&](Connection& connection) {
    ++connections;
    TlsConnection(connection, {trusted}).answerAll([](auto&) { return httpReply(200, "", ""); });
  });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch({"https://" + server.host()}).status(), 200);
  EXPECT_EQ(connections, 1);
}

class Ending : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(Ending, IsQuietWithTransfersInFlight) {
  // The process that ends runs this test again; the server stays here.
  std::optional<Trusted> trusted;
  std::optional<RawServer> server;
  std::latch flowing(4);
  if (::getenv("ENDLESS_SERVER") == nullptr) {
    trusted.emplace();
    server.emplace([&](Connection& plain) {
      TlsConnection connection(plain, {*trusted});
      if (connection.readHead().starts_with("GET /flowing")) {
        flowing.wait();
        connection.send(httpReply(200));
      } else {
        connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
        for (flowing.count_down(); connection.send("7\r\nendless\r\n");) continue;
      }
    });
    ::setenv("ENDLESS_SERVER", ("https://" + server->host()).c_str(), 1);
  }
  static const auto moved = std::make_shared<std::atomic<std::uint64_t>>(0);
  const auto exitInTransfer = [] {
    // What is registered first comes last: the TLS library is torn down by then, and nobody must use it any more.
    std::atexit([] {
      const std::uint64_t before = *moved;
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
      while (std::chrono::steady_clock::now() < end)
        if (*moved != before) std::abort();
    });
    const std::string url = ::getenv("ENDLESS_SERVER");
    for (int i = 0; i < 4; ++i) start({.url = url, .bytesMoved = moved}, [](auto, auto, auto) { std::abort(); });
    std::exit(fetch({url + "/flowing"}).status() == 200 ? 0 : 1);
  };
  EXPECT_EXIT(exitInTransfer(), testing::ExitedWithCode(0), "^$");
}

/// This host and the proxy that stands for all others, with and without TLS. Answers ".../STATUS?LOCATION" with just
/// that, all else with 200.
struct Redirect : testing::Test {
  Redirect() {
    for (const char* scheme : {"http_proxy", "https_proxy"}) ::setenv(scheme, server.url().c_str(), 1);
    ::unsetenv("no_proxy");
  }
  std::string answer(const std::string& request) {
    ++timesAsked;
    seen = request;
    const auto question = request.find('?');
    if (question == request.npos || std::isdigit(request[question - 1]) == 0) return httpReply(200);
    const auto location = request.substr(question + 1, request.find(' ', question) - question - 1);
    return httpReply(std::stoi(request.substr(question - 3, 3)), "",
                     "Connection: close\r\nLocation: " + location + "\r\n");
  }
  const Trusted trusted;
  int timesAsked = 0;
  std::string seen;  ///< last
  RawServer server{[this](Connection& connection) {
    answerAsAnyHost(connection, {trusted}, [this](const std::string& request) { return answer(request); });
  }};
};

TEST_F(Redirect, IsFollowedOnItsHostWithoutCredentials) {
  const std::tuple<int, std::string, std::string> cases[] = {
      {301, "POST", "GET"},  {302, "POST", "GET"}, {303, "POST", "GET"}, {307, "POST", "POST"},
      {308, "POST", "POST"}, {301, "PUT", "PUT"},  {303, "PUT", "GET"},  {302, "GET", "GET"}};
  for (const auto& [status, method, after] : cases) {
    SCOPED_TRACE(concat(status, " ", method));
    URLRequest request{server.url(concat("/", status, "?sub/../end?x=1")), method};
    request.headers = {{"authorization", "Basic x"}, {"Content-Type", "application/json"}, {"X-Own", "1"}};
    if (method != "GET") request.httpBody = "{}";
    const Outcome outcome = fetch(request);
    EXPECT_EQ(outcome.status(), 200);
    EXPECT_EQ(outcome.response.value().url, server.url("/end?x=1"));
    const bool same = method == after;
    EXPECT_EQ(seen, concat(after, " /end?x=1 HTTP/1.1\r\nHost: ", server.host(), "\r\n",
                           same ? "Content-Type: application/json\r\n" : "", "X-Own: 1\r\n",
                           same && method != "GET" ? "Content-Length: 2\r\n\r\n{}" : "\r\n"));
  }
}

TEST_F(Redirect, TakesNoBodyToAnotherHostAndNobodyFromOutsideToThisOne) {
  const std::string here = server.url("/end"), hereSecured = "https://" + server.host() + "/302?";
  const std::string remote = "http://backend.invalid/", secured = "https://backend.invalid/",
                    other = "http://other.invalid/end";
  constexpr int refused = urlError::secureConnectionFailed;
  const struct {
    std::string method, from, to;
    int asked, status, code = 0;
    const char* last = "";
  } cases[] = {
      {"GET", secured + "302?", here, 1, 302, refused},
      {"POST", secured + "307?", remote + "end", 1, 307, refused},
      {"GET", hereSecured, here, 2, 200, 0, "GET /end HTTP/1.1"},
      {"PUT", remote + "301?", other, 1, 301},
      {"FILE", remote + "308?", other, 1, 308},
      {"POST", remote + "308?", "http://Backend.INVALID/end", 2, 200, 0, "POST http://Backend.INVALID/end HTTP/1.1"},
      {"POST", remote + "307?", secured + "end", 2, 200, 0, "POST /end HTTP/1.1"},
      {"POST", remote + "303?", other, 2, 200, 0, "GET http://other.invalid/end HTTP/1.1"}};
  const auto body = trusted.dir.path() / "body";
  std::ofstream(body) << "positions";
  for (const auto& [method, from, to, asked, status, code, last] : cases) {
    SCOPED_TRACE(method + " " + from + to);
    timesAsked = 0;
    URLRequest request{from + to, method == "FILE" ? "POST" : method};
    if (method == "POST" || method == "PUT") request.httpBody = "positions";
    const Outcome outcome = fetch(request, method == "FILE" ? body : "");
    EXPECT_EQ(outcome.status(), status);
    EXPECT_EQ(outcome.code(), code);
    EXPECT_EQ(timesAsked, asked);
    EXPECT_TRUE(asked == 1 || seen.starts_with(last)) << seen;
  }
}

TEST(HostileServer, GetsABatchTwiceWhenItDropsKeptConnectionsAndTheSecondTimeOnAFreshOne) {
  constexpr int warm = 8;
  std::atomic<int> open{0}, copies{0}, onFresh{0};
  RawServer server([&](Connection& connection) {
    bool kept = false;
    for (std::string head; !(head = connection.readHead()).empty(); kept = true) {
      if (head.starts_with("POST")) {
        ++copies;
        if (kept) return;
        ++onFresh;
      } else {
        ++open;
        open.notify_all();
        for (int now; (now = open) < warm;) open.wait(now);  // all side by side
      }
      connection.send(httpReply(200, "", ""));
    }
  });
  for (int i = 0; i < warm; ++i) start({server.url("/warm")});
  ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  const Outcome outcome = fetch({server.url("/batch"), "POST", {}, "x"});
  EXPECT_EQ(outcome.status(), 200);
  EXPECT_EQ(copies, 2);
  EXPECT_EQ(onFresh, 1);
}

TEST(HostileServer, LetsOthersHaveTheirTurnWhenItAnswersWithoutEnd) {
  constexpr int patient = 8;  // of the 33 requests the first, and slow only
  auto server = std::make_unique<RawServer>([](Connection& connection) {
    const std::string head = connection.readHead();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 99\r\nConnection: close\r\n\r\nx");
    if (head.starts_with("GET /quick")) connection.send(std::string(98, 'x'));
    if (head.starts_with("GET /drip")) connection.setPatience(100);
    for (char c; connection.read(&c, 1) < 0;) connection.send("x");
  });
  std::mutex mutex;
  std::vector<std::pair<int, std::int64_t>> ended;
  for (int i = 0; i <= 32; ++i)
    start({server->url(i < patient ? "/slow" : "/drip"), "GET", {}, {}, Seconds(i < patient ? 60 : 2)},
          [&, i](auto, auto, auto error) {
            const std::lock_guard lock(mutex);
            ended.emplace_back(i, error ? error->code : 0);
          });

  EXPECT_EQ(fetch({server->url("/quick")}).status(), 200);

  {
    // As many connections as there may be, and of the first that dripped two have given way.
    const std::lock_guard lock(mutex);
    EXPECT_EQ(ended.size(), 2U);
    for (const auto& [number, code] : ended) {
      EXPECT_TRUE(number >= patient && number < patient + 8) << number;
      EXPECT_EQ(code, urlError::timedOut);
    }
  }
  server.reset();
  EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
}

TEST_F(Ending, ComesInTimeWhenTheSessionsThreadHangs) {
  const auto hang = [] {
    TempDir dir;
    ::mkfifo((dir.path() / "ca.pem").c_str(), 0600);  // nobody ever writes to it
    ::setenv("SSL_CERT_FILE", (dir.path() / "ca.pem").c_str(), 1);
    std::promise<void> connected;
    RawServer server([&](Connection& connection) {
      connected.set_value();
      connection.waitForPeerToLeave();
    });
    start({"https://" + server.host()});
    connected.get_future().wait();
    const bool hangs = !WorkInFlight::waitUntilIdle(Seconds(0.3));
    ::alarm(7);  // longer than the library's four seconds and those of a sanitizer
    std::exit(hangs ? 0 : 1);
  };
  EXPECT_EXIT(hang(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarvo::platform

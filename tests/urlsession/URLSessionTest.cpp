#include "platform/urlsession/URLSession.h"

#include <atomic>

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
  const std::string large(2'000'000, 'x');
  const std::pair<URLRequest, std::string> cases[] = {
      {{server.url("/v1//a/../%2e?uuid=A b"), "GET", {}, {}}, ""},
      {{server.url("/v1//a/../%2e?uuid=A%20b"), "GET", {}, {}},
       "GET /v1//a/../%2e?uuid=A%20b HTTP/1.1" + host + "\r\n"},
      {{server.url(), "GET", {{"Accept", "application/json"}, {"content-type", "application/json"}}, {}},
       "GET / HTTP/1.1" + host + "Accept: application/json\r\ncontent-type: application/json\r\n\r\n"},
      {{server.url(), "POST", {{"Content-Length", "7"}, {"X", "a\r\nY: b"}}, "{}"},
       "POST / HTTP/1.1" + host + "Content-Length: 2\r\n\r\n{}"},
      {{server.url(), "POST", {{"Empty", ""}}, {}}, "POST / HTTP/1.1" + host + "Empty:\r\nContent-Length: 0\r\n\r\n"},
      {{server.url(), "DELETE", {}, {}}, "DELETE / HTTP/1.1" + host + "\r\n"},
      {{server.url(), "PUT", {}, large}, "PUT / HTTP/1.1" + host + "Content-Length: 2000000\r\n\r\n" + large}};
  for (const auto& [request, sent] : cases) {
    seen.clear();
    fetch(request);
    EXPECT_TRUE(seen == sent) << request.description() << seen.substr(0, 300);
  }
}

TEST(URLSession, DeliversStatusAndBodyAndTheStatusOfABrokenTransferBesideItsError) {
  enum Then { close, reset, silence, repeat };
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n", ok = "HTTP/1.1 200 OK\r\n";
  constexpr int lost = urlError::networkConnectionLost, tooLong = urlError::dataLengthExceedsMaximum;
  std::string body(3'000'000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 % 251);
  const struct {
    std::string reply;
    Then then;
    int status, code;
    std::optional<std::string> data = {};
  } cases[] = {{httpReply(404, body), close, 404, 0, body},
               {"HTTP/1.1 204 X\r\n\r\n", close, 204, 0},
               {"HTTP/1.1 500 Oops\r\nContent-Length: 9\r\n\r\nabc", reset, 500, lost},
               {"HTTP/1.1 503 Busy\r\nServer:", reset, 503, lost},
               {ok + "Content-Length: 9\r\n\r\nabc", close, 200, lost},
               {"", close, 0, lost},
               {"HTTP/1.1 100 Continue\r\n\r\n", close, 0, lost},
               {"", silence, 0, urlError::timedOut},
               {"HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\na", silence, 401, urlError::timedOut},
               {ok + "Content-Length: 33554433\r\n\r\n", silence, 200, tooLong},
               {ok + "Transfer-Encoding: chunked\r\n\r\n" + chunk, repeat, 200, tooLong},
               {"hello\r\n\r\n", close, 0, urlError::badServerResponse}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply.substr(0, 100));
    RawServer server([&](Connection& connection) {
      connection.readHead();
      connection.send(c.reply);
      if (c.then == reset) connection.resetOnClose();
      if (c.then == silence) connection.waitForPeerToLeave();
      while (c.then == repeat && connection.send(chunk)) continue;
    });
    const Outcome outcome = fetch({server.url(), "GET", {}, {}, Seconds(c.then == silence ? 0.3 : 60)});
    EXPECT_EQ(outcome.status(), c.status);
    EXPECT_EQ(outcome.code(), c.code);
    EXPECT_TRUE(outcome.data == c.data);
    if (!outcome.error) continue;
    EXPECT_EQ(outcome.error->domain, NSURLErrorDomain);
    EXPECT_EQ(findString(outcome.error->userInfo, "NSErrorFailingURLStringKey"), server.url());
    EXPECT_FALSE(outcome.error->localizedDescription.empty());
  }
}

TEST(URLSession, TellsWhyNothingWasReached) {
  const std::pair<std::string, int> cases[] = {{RawServer(Answer()).url(), urlError::cannotConnectToHost},
                                               {"http://no..name/", urlError::cannotFindHost},
                                               {"ftp://localhost/", urlError::unsupportedURL},
                                               {"nonsense", urlError::badURL}};
  for (const auto& [url, code] : cases) EXPECT_EQ(fetch({url}).code(), code) << url;
}

TEST(URLSession, CompletesEachTaskOnceAndOneAtATime) {
  RawServer server([](const std::string& request) { return httpReply(200, request.substr(5, request.find(" HTTP") - 5)); });
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::atomic<int>> completed(kThreads * kEach);
  std::atomic<int> atOnce{0}, wrong{0};
  static thread_local bool resuming = false;
  const auto sendAll = [&](int from) {
    for (int i = from; i < from + kEach; ++i) {
      // Every fifth is decided without any network.
      const bool fails = i % 5 == 0;
      const auto task = URLSession::shared().dataTask(
          {fails ? "nonsense" : server.url("/" + std::to_string(i))}, [&, i, fails](auto data, auto, auto error) {
            if (atOnce.fetch_add(1) != 0 || resuming || (fails ? !error : data != std::to_string(i))) ++wrong;
            ++completed[static_cast<std::size_t>(i)];
            --atOnce;
          });
      resuming = true;
      for (int times = 0; times < 2; ++times) task->resume();
      resuming = false;
    }
  };

  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(sendAll, i * kEach);
  for (auto& thread : threads) thread.join();

  EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(60)));
  for (const auto& count : completed) EXPECT_EQ(count, 1);
  EXPECT_EQ(wrong, 0) << "side by side, inside of resume or with another's answer";
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

TEST(URLSessionDeathTest, EndsQuietlyWithTransfersInFlight) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The process that ends runs this test again; the server stays here.
  std::optional<Trusted> trusted;
  std::optional<RawServer> server;
  std::atomic<int> sent{0};
  if (::getenv("ENDLESS_SERVER") == nullptr) {
    trusted.emplace();
    server.emplace([&](Connection& plain) {
      TlsConnection connection(plain, {*trusted});
      if (connection.readHead().starts_with("GET /flowing")) {
        for (int seen = 0; seen < 100; seen = sent) sent.wait(seen);
        connection.send(httpReply(200));
      } else {
        connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
        while (connection.send("7\r\nendless\r\n")) {
          ++sent;
          sent.notify_all();
        }
      }
    });
    ::setenv("ENDLESS_SERVER", ("https://" + server->host()).c_str(), 1);
  }
  const auto exitInTransfer = [] {
    const std::string url = ::getenv("ENDLESS_SERVER");
    for (int i = 0; i < 4; ++i) start({url}, [](auto, auto, auto) { std::abort(); });
    std::exit(fetch({url + "/flowing"}).status() == 200 ? 0 : 1);
  };
  EXPECT_EXIT(exitInTransfer(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarvo::platform

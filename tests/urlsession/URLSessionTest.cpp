#include "platform/urlsession/URLSession.h"

#include <atomic>
#include <set>

#include "platform/foundation/WorkInFlight.h"
#include "support/Servers.h"
#include "urlsession/Fetch.h"

namespace tarvo::platform {
namespace {

using namespace test;

TEST(URLSession, SendsWhatWasGivenAndNothingElse) {
  std::string head;
  RawServer server([&head](int connection) {
    head = RawServer::readHead(connection);
    RawServer::send(connection, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
  });
  const std::string host = "\r\nHost: " + server.host() + "\r\n";
  const std::string large(2'000'000, 'x');
  struct Case {
    URLRequest request;
    std::string head;
  };
  const Case cases[] = {
      {{server.url("/v1//a/../%2e?uuid=A b"), "GET", {}, {}}, ""},
      {{server.url("/v1//a/../%2e?uuid=A%20b"), "GET", {}, {}},
       "GET /v1//a/../%2e?uuid=A%20b HTTP/1.1" + host + "\r\n"},
      {{server.url(), "GET", {{"Accept", "application/json"}, {"content-type", "application/json"}}, {}},
       "GET / HTTP/1.1" + host + "Accept: application/json\r\ncontent-type: application/json\r\n\r\n"},
      {{server.url(),
        "POST",
        {{"Content-Type", "application/json"}, {"Content-Length", "7"}, {"X", "a\r\nY: b"}},
        "{}"},
       "POST / HTTP/1.1" + host + "Content-Type: application/json\r\nContent-Length: 2\r\n\r\n"},
      {{server.url(), "POST", {{"Empty", ""}}, {}}, "POST / HTTP/1.1" + host + "Empty:\r\nContent-Length: 0\r\n\r\n"},
      {{server.url(), "DELETE", {}, {}}, "DELETE / HTTP/1.1" + host + "\r\n"},
      {{server.url(), "PUT", {}, large}, "PUT / HTTP/1.1" + host + "Content-Length: 2000000\r\n\r\n"},
  };
  for (const Case& c : cases) {
    head.clear();
    fetch(c.request);
    EXPECT_EQ(head, c.head) << c.request.description();
  }
}

TEST(URLSession, HandsOverReplyAndStatus) {
  Running server;
  server.set_keep_alive_max_count(1);
  server.Post("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.status = 404;
    response.set_header("X-Kind", "echo");
    response.set_content(request.body, "text/plain");
  });
  server.Get("/empty", [](const httplib::Request&, httplib::Response& response) { response.status = 204; });
  std::string body(3'000'000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 % 251);
  const Outcome echo = fetch({server.url("/echo"), "POST", {}, body});
  EXPECT_TRUE(echo.data == body && !echo.error);
  const HTTPURLResponse& response = echo.response.value();
  EXPECT_EQ(response.url, server.url("/echo"));
  for (const char* text : {"{ Status Code: 404, Headers {", "X-Kind: echo"})
    EXPECT_NE(response.debugDescription().find(text), std::string::npos) << text;
  const Outcome empty = fetch({server.url("/empty")});
  EXPECT_FALSE(empty.data);
  EXPECT_EQ(empty.status(), 204);
}

TEST(URLSession, DeliversTheStatusOfABrokenTransferBesideItsError) {
  struct Case {
    std::string reply;
    enum { reset, close, silence, repeat } then;
    int status, code;
  };
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n", ok = "HTTP/1.1 200 OK\r\n";
  constexpr int lost = urlError::networkConnectionLost, tooLong = urlError::dataLengthExceedsMaximum;
  const Case cases[] = {{"HTTP/1.1 500 Oops\r\nContent-Length: 9\r\n\r\nabc", Case::reset, 500, lost},
                        {"HTTP/1.1 503 Busy\r\nServer:", Case::reset, 503, lost},
                        {ok + "Content-Length: 9\r\n\r\nabc", Case::close, 200, lost},
                        {"", Case::close, 0, lost},
                        {"HTTP/1.1 100 Continue\r\n\r\n", Case::close, 0, lost},
                        {"", Case::silence, 0, urlError::timedOut},
                        {"HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\na", Case::silence, 401, urlError::timedOut},
                        {ok + "Content-Length: 33554433\r\n\r\n", Case::silence, 200, tooLong},
                        {ok + "Transfer-Encoding: chunked\r\n\r\n" + chunk, Case::repeat, 200, tooLong},
                        {"hello\r\n\r\n", Case::close, 0, urlError::badServerResponse}};
  for (const auto& [reply, then, status, code] : cases) {
    SCOPED_TRACE(reply.substr(0, 100));
    RawServer server([&reply = reply, then = then, &chunk](int connection) {
      RawServer::readHead(connection);
      RawServer::send(connection, reply);
      if (then == Case::reset) RawServer::resetOnClose(connection);
      if (then == Case::silence) RawServer::waitForPeerToLeave(connection);
      while (then == Case::repeat && RawServer::send(connection, chunk)) continue;
    });
    URLRequest request{server.url()};
    if (then == Case::silence) request.timeoutInterval = Seconds(0.3);
    const Outcome outcome = fetch(request);
    EXPECT_EQ(outcome.status(), status);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.code(), code) << outcome.error->description();
    EXPECT_EQ(outcome.error->domain, NSURLErrorDomain);
    EXPECT_EQ(findString(outcome.error->userInfo, "NSErrorFailingURLStringKey"), server.url());
    EXPECT_FALSE(outcome.data || outcome.error->localizedDescription.empty());
  }
}

TEST(URLSession, TellsWhyNothingWasReached) {
  const std::pair<std::string, int> cases[] = {{RawServer([](int) {}).url(), urlError::cannotConnectToHost},
                                               {"http://no..name/", urlError::cannotFindHost},
                                               {"ftp://localhost/", urlError::unsupportedURL},
                                               {"nonsense", urlError::badURL}};
  for (const auto& [url, code] : cases) EXPECT_EQ(fetch({url}).code(), code) << url;
}

TEST(URLSession, CompletesEachTaskOnceAndOneAtATime) {
  Running server;
  server.set_keep_alive_max_count(1);
  server.Get("/(\\d+)", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.matches[1].str(), "text/plain");
  });
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
  TrustedServer server;
  std::set<int> ports;
  server.Get("/", [&ports](const httplib::Request& request, httplib::Response&) { ports.insert(request.remote_port); });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch({server.url()}).status(), 200);
  EXPECT_EQ(ports.size(), 1U);
}

TEST(URLSessionDeathTest, EndsQuietlyWithTransfersInFlight) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The process that ends runs this test again; the server stays here.
  std::optional<TrustedServer> server;
  std::atomic<int> sent{0};
  if (::getenv("ENDLESS_SERVER") == nullptr) {
    server.emplace();
    server->Get("/", [&sent](const httplib::Request&, httplib::Response& response) {
      response.set_chunked_content_provider("text/plain", [&sent](std::size_t, httplib::DataSink& sink) {
        ++sent;
        sent.notify_all();
        return sink.write("endless", 7);
      });
    });
    server->Get("/flowing", [&sent](const httplib::Request&, httplib::Response&) {
      for (int seen = 0; seen < 100; seen = sent) sent.wait(seen);
    });
    ::setenv("ENDLESS_SERVER", server->url().c_str(), 1);
  }
  const auto exitInTransfer = [] {
    const std::string url = ::getenv("ENDLESS_SERVER");
    for (int i = 0; i < 4; ++i) start({url}, [](auto, auto, auto) { std::abort(); });
    std::exit(fetch({url + "flowing"}).status() == 200 ? 0 : 1);
  };
  EXPECT_EXIT(exitInTransfer(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarvo::platform

#include <sys/resource.h>
#include <sys/stat.h>

#include <ctime>
#include <mutex>
#include <vector>

#include "platform/foundation/WorkInFlight.h"
#include "support/NoThreads.h"
#include "support/RawServer.h"
#include "support/TempDir.h"
#include "urlsession/Fetch.h"

namespace tarvo::platform {
namespace {

using namespace std::chrono_literals;
using namespace test;

/// The checks of undefined behaviour look at objects through a pipe, which takes descriptors.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kNeedsDescriptors = true;
#else
constexpr bool kNeedsDescriptors = false;
#endif

TEST(HostileServer, GetsABatchTwiceWhenItDropsKeptConnectionsAndTheSecondTimeOnAFreshOne) {
  for (const int warm : {0, 1, 3, 8}) {
    SCOPED_TRACE(warm);
    std::atomic<int> open{0}, copies{0}, onFresh{0};
    RawServer server([&, warm](Connection& connection) {
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
    EXPECT_EQ(outcome.code(), 0);
    EXPECT_EQ(copies, warm == 0 ? 1 : 2);
    EXPECT_EQ(onFresh, 1);
  }
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

/// Lets the process open so many descriptors. Answers how many it was before.
rlim_t limitDescriptors(rlim_t most) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t before = std::exchange(limit.rlim_cur, most);
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return before;
}

/// The process ends within the five seconds, and this tells whether it did. Registered before the session is made, so
/// that it comes after the session's own end.
std::chrono::steady_clock::time_point exitBegan;
void exitInTime(bool good) {
  exitBegan = std::chrono::steady_clock::now();
  std::exit(good ? 0 : 1);
}
void watchExit() {
  std::atexit([] {
    if (std::chrono::steady_clock::now() - exitBegan > 5s) ::_exit(2);
  });
}

class Ending : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(Ending, WorksAndEndsInTimeAfterAStartWithoutDescriptors) {
  if (kNeedsDescriptors) GTEST_SKIP();
  const auto startWithout = [] {
    watchExit();
    RawServer server([](const std::string&) { return httpReply(404); });
    const int next = ::dup(0);
    ::close(next);
    const rlim_t before = limitDescriptors(static_cast<rlim_t>(next));
    const bool failed = fetch({server.url()}).error.has_value();
    limitDescriptors(before);
    bool answered = true;
    for (int i = 0; i < 3; ++i) answered = answered && fetch({server.url()}).status() == 404;
    exitInTime(failed && answered);
  };
  EXPECT_EXIT(startWithout(), testing::ExitedWithCode(0), "");
}

TEST_F(Ending, ComesInTimeWhenTheSessionsThreadHangs) {
  const auto hang = [] {
    watchExit();
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
    exitInTime(!WorkInFlight::waitUntilIdle(Seconds(0.3)));
  };
  EXPECT_EXIT(hang(), testing::ExitedWithCode(0), "");
}

TEST(Session, SendsWhatHasWaitedForItsThread) {
  RawServer server([](const std::string&) { return httpReply(204); });
  std::atomic<int> completed{0};
  const auto task = [&] {
    start({server.url()}, [&](auto, auto response, auto) { completed += response.has_value(); });
  };
  {
    const NoThreads none;
    task();
  }
  task();
  EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(completed, 2);
}

TEST(Session, DoesNotSpinWhenTheSystemRefusesToPoll) {
  if (kNeedsDescriptors) GTEST_SKIP();
  std::promise<void> asked, limited;
  RawServer server([&](Connection& connection) {
    connection.readHead();
    asked.set_value();
    limited.get_future().wait();
    connection.setPatience(500);
    char c;
    connection.read(&c, 1);  // a peer that gives up ends the wait
    connection.send("HTTP/1.1 204 No Content\r\n\r\n");
  });
  auto outcome = std::async(std::launch::async, [&] { return fetch({server.url()}); });
  asked.get_future().wait();
  const rlim_t before = limitDescriptors(2);  // fewer than it polls
  const std::clock_t began = std::clock();

  limited.set_value();

  EXPECT_EQ(outcome.get().status(), 204);
  EXPECT_LT(std::clock() - began, CLOCKS_PER_SEC / 10) << "of half a second";
  limitDescriptors(before);
}

}  // namespace
}  // namespace tarvo::platform

#include <sys/resource.h>
#include <sys/stat.h>

#include <condition_variable>
#include <ctime>
#include <mutex>
#include <set>
#include <vector>

#include "platform/foundation/WorkInFlight.h"
#include "support/NoThreads.h"
#include "support/Servers.h"
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

/// What threads tell a test that waits for it.
template <class Value>
class Told {
 public:
  void add(Value value) {
    const std::lock_guard lock(mutex_);
    values_.insert(std::move(value));
    changed_.notify_all();
  }
  bool waitFor(const std::set<Value>& wanted) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(
        lock, 30s, [&] { return std::includes(values_.begin(), values_.end(), wanted.begin(), wanted.end()); });
  }
  std::set<Value> all() {
    const std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<Value> values_;
};

TEST(HostileServer, GetsABatchTwiceWhenItDropsKeptConnectionsAndTheSecondTimeOnAFreshOne) {
  for (const int warm : {0, 1, 3, 8}) {
    SCOPED_TRACE(warm);
    std::atomic<int> open{0}, copies{0}, onFresh{0};
    RawServer server(RawServer::sideBySide, [&, warm](int connection) {
      bool kept = false;
      for (std::string head; !(head = RawServer::readHead(connection)).empty(); kept = true) {
        if (head.starts_with("POST")) {
          ++copies;
          if (kept) {
            ::shutdown(connection, SHUT_RDWR);
            return;
          }
          ++onFresh;
        } else {
          ++open;
          open.notify_all();
          for (int now; (now = open) < warm;) open.wait(now);  // all side by side
        }
        RawServer::send(connection, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
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

TEST(HostileServer, HoldsTwoCopiesOfARequestAndTheNewestDecide) {
  Told<char> arrived, left, completed;
  std::map<char, int> connections;
  std::mutex mutex;
  RawServer server(RawServer::sideBySide, [&](int connection) {
    const std::string head = RawServer::readHead(connection);
    const char copy = head[head.find("Copy: ") + 6];
    char body = 0;
    ::recv(connection, &body, 1, 0);
    RawServer::send(connection, "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nConnection: close\r\n\r\nanswer: ");
    {
      const std::lock_guard lock(mutex);
      connections[copy] = connection;
    }
    arrived.add(copy);
    RawServer::waitForPeerToLeave(connection);
    left.add(copy);
  });
  // The capital asks for something else, and is answered like the newest.
  for (const char copy : {'a', 'X', 'b', 'c', 'd', 'e'}) {
    URLRequest request{server.url("/batch"), "POST", {{"Copy", std::string(1, copy)}}, copy == 'X' ? "other" : "batch"};
    request.replacesOlder = true;
    start(std::move(request), [&](auto data, auto, auto) { completed.add(data ? data->back() : '?'); });
    ASSERT_TRUE(arrived.waitFor({copy}));
  }
  EXPECT_TRUE(left.waitFor({'a', 'b', 'c'}));
  for (const char copy : {'X', 'd', 'e'}) RawServer::send(connections[copy], std::string(1, copy));
  EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(completed.all(), (std::set<char>{'X', 'd', 'e'}));
}

TEST(HostileServer, LetsOthersHaveTheirTurnWhenItAnswersWithoutEnd) {
  constexpr int patient = 8;  // of the 33 requests the first, and slow only
  Told<std::pair<int, std::int64_t>> ended;
  auto server = std::make_unique<RawServer>(RawServer::sideBySide, [](int connection) {
    const std::string head = RawServer::readHead(connection);
    const bool drips = head.starts_with("GET /drip"), quick = head.starts_with("GET /quick");
    RawServer::send(connection, "HTTP/1.1 200 OK\r\nContent-Length: 99\r\nConnection: close\r\n\r\nx");
    if (quick) RawServer::send(connection, std::string(98, 'x'));
    const timeval pause{0, drips ? 100'000 : 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
    for (char c; ::recv(connection, &c, 1, 0) < 0;) RawServer::send(connection, "x");
  });
  for (int i = 0; i <= 32; ++i) {
    URLRequest request{server->url(i < patient ? "/slow" : "/drip")};
    if (i >= patient) request.timeoutInterval = Seconds(2);
    start(std::move(request), [&ended, i](auto, auto, auto e) { ended.add(std::pair(i, e ? e->code : 0)); });
  }
  EXPECT_EQ(fetch({server->url("/quick")}).status(), 200);
  // As many connections as there may be, and of the first that dripped two have given way.
  const auto gaveWay = ended.all();
  EXPECT_EQ(gaveWay.size(), 2U);
  for (const auto& [number, code] : gaveWay) {
    EXPECT_GE(number, patient);
    EXPECT_LT(number, patient + 8);
    EXPECT_EQ(code, urlError::timedOut);
  }
  server.reset();
  EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
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
    Running server;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = limit.rlim_cur;
    const int next = ::dup(0);
    ::close(next);
    limit.rlim_cur = static_cast<rlim_t>(next);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const bool failed = fetch({server.url("/")}).error.has_value();
    limit.rlim_cur = before;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    bool answered = true;
    for (int i = 0; i < 3; ++i) answered = answered && fetch({server.url("/")}).status() == 404;
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
    RawServer server([&](int connection) {
      connected.set_value();
      RawServer::waitForPeerToLeave(connection);
    });
    start({"https://" + server.host()});
    connected.get_future().wait();
    exitInTime(!WorkInFlight::waitUntilIdle(Seconds(0.3)));
  };
  EXPECT_EXIT(hang(), testing::ExitedWithCode(0), "");
}

TEST(Session, SendsWhatHasWaitedForItsThread) {
  RawServer server([](int connection) {
    RawServer::readHead(connection);
    RawServer::send(connection, "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
  });
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
  RawServer server([&](int connection) {
    RawServer::readHead(connection);
    asked.set_value();
    limited.get_future().wait();
    // A peer that gives up ends the wait.
    const timeval pause{0, 500'000};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
    char c;
    ::recv(connection, &c, 1, 0);
    RawServer::send(connection, "HTTP/1.1 204 No Content\r\n\r\n");
  });
  std::promise<int> ended;
  start({server.url()},
        [&](auto, auto response, auto error) { ended.set_value(response && !error ? response->statusCode : -1); });
  asked.get_future().wait();
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t most = std::exchange(limit.rlim_cur, 2);  // fewer than it polls
  ::setrlimit(RLIMIT_NOFILE, &limit);
  const std::clock_t before = std::clock();
  limited.set_value();
  auto outcome = ended.get_future();
  ASSERT_EQ(outcome.wait_for(30s), std::future_status::ready);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10) << "of half a second";
  EXPECT_EQ(outcome.get(), 204);
  limit.rlim_cur = most;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace tarvo::platform

#include "receivers/Gpsd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include <tarvo/platform/Clock.h>

#include "Diary.h"
#include "receivers/FixOrder.h"
#include "receivers/Nmea.h"
#include "support/RawServer.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using test::Diary;
using test::Drive;
using enum Condition;

constexpr const char* kGpsd = "/usr/sbin/gpsd";

/// A gpsd that reads its receiver from another port, for as long as the object is there.
class RunningGpsd {
 public:
  RunningGpsd(std::string port, const std::string& receiver) {
    std::string words[] = {kGpsd, "-N", "-n", "-S", std::move(port), "tcp://" + receiver};
    char* arguments[std::size(words) + 1] = {};
    std::ranges::transform(words, arguments, [](std::string& word) { return word.data(); });
    posix_spawn_file_actions_t quiet;
    ::posix_spawn_file_actions_init(&quiet);
    ::posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    EXPECT_EQ(::posix_spawn(&process_, kGpsd, &quiet, nullptr, arguments, environ), 0);
    ::posix_spawn_file_actions_destroy(&quiet);
  }
  ~RunningGpsd() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }

 private:
  pid_t process_ = -1;
};

/// Sends a drive's sentences to the latest peer, when it is told to.
struct Antenna {
  explicit Antenna(const Drive& itsDrive) : drive(itsDrive), server([this](test::Connection& peer) { serve(peer); }) {}
  ~Antenna() {
    asked = SIZE_MAX;
    asked.notify_all();
  }
  /// False when there are no more.
  bool sendOne() {
    const bool isThere = ++asked <= drive.sentences.size();
    asked.notify_all();
    return isThere;
  }
  void serve(test::Connection& peer) {
    const std::size_t mine = ++peers;
    for (std::size_t now = asked; now != SIZE_MAX && mine == peers; asked.wait(now), now = asked)
      while (sent < std::min(now, drive.sentences.size()))
        if (!peer.send(drive.sentences[sent++])) return;
  }
  const Drive& drive;
  std::atomic<std::size_t> asked = 0, sent = 0, peers = 0;
  test::RawServer server;
};

TEST(Gpsd, ThatIsKilledTwiceGoesOnAndTellsWhatItsReceiverTold) {
  if (!std::filesystem::exists(kGpsd)) GTEST_SKIP() << "no gpsd here";
  const Drive drive(static_cast<std::int64_t>(platform::secondsSince1970(platform::Clock::current()->now())) - 3600);
  Antenna antenna(drive);
  const std::string port = test::RawServer([](test::Connection&) {}).port;  // nobody listens there any more
  Diary diary;
  const auto receiver = openGpsd("127.0.0.1:" + port, diary);
  receiver->start(-1);
  std::vector<Condition> told{lost};
  ASSERT_TRUE(diary.waitForConditions(told));
  EXPECT_EQ(diary.lines()[0], "gpsd at 127.0.0.1:" + port + ": connection refused, it is tried again");

  for (std::size_t wanted = 30; wanted <= 90; wanted += 30) {
    const RunningGpsd gpsd(port, antenna.server.host());
    told.push_back(searching);
    ASSERT_TRUE(diary.waitForConditions(told)) << diary.lines().back();
    // A gpsd that has just come looks for the shape of a moment first; what it reports before it is asked to is lost.
    while (!diary.waitForFixes(wanted, 20ms)) ASSERT_TRUE(antenna.sendOne()) << "fixes do not come";
    told.insert(told.end(), {receiving, lost});
  }

  drive.expect(FixOrder().take(diary.fixes()));
}

TEST(Gpsd, ThatNeverAnswersHoldsNobodyUp) {
  const int full = ::socket(AF_INET, SOCK_STREAM, 0), waiting = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
  ASSERT_EQ(::listen(full, 0), 0);  // on a port of the system's choice
  ::getsockname(full, generic, &size);
  ASSERT_EQ(::connect(waiting, generic, size), 0);  // takes the only place
  Diary diary;
  auto receiver = openGpsd("127.0.0.1:" + std::to_string(ntohs(address.sin_port)), diary);
  receiver->start(-1);
  const auto isAsking = [&] {  // a connection of ours in the state SYN_SENT
    char peer[32];
    std::snprintf(peer, sizeof peer, " 0100007F:%04X 02 ", ntohs(address.sin_port));
    std::ifstream table("/proc/net/tcp");
    return std::string(std::istreambuf_iterator<char>(table), {}).find(peer) != std::string::npos;
  };
  const auto until = std::chrono::steady_clock::now() + 20s;
  while (!isAsking() && std::chrono::steady_clock::now() < until) continue;
  ASSERT_TRUE(isAsking());

  const auto before = std::chrono::steady_clock::now();
  receiver.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
  ::close(waiting);
  ::close(full);
}

TEST(Receivers, TakeWhatPeopleWriteAndRefuseTheRest) {
  Diary diary;
  for (const char* address :
       {"", "localhost", "gps.example:1", "127.0.0.1:65535", "::1", "[::1]", "[::1]:2947", ":2947"})
    EXPECT_NO_THROW(openGpsd(address, diary)) << address;
  for (const char* address : {"host:", "host:0", "host:65536", "host:2947x", "[::1", "[]:2947", "[::1]2947"})
    EXPECT_THROW(openGpsd(address, diary), std::invalid_argument) << address;
  EXPECT_THROW(openNmea("", {}, diary), std::invalid_argument);
  EXPECT_THROW(openNmea("/dev/null", {.baudRate = 9601}, diary), std::invalid_argument);
}

/// What gpsd says, word by word, and what becomes of it.
TEST(Gpsd, ReportsOnlyWhatIsAFixAndOnlyOfOneDevice) {
  const std::string at = R"("lat":48,"lon":11,"time":"2026-11-20T12:00:)", tpv = R"({"class":"TPV","device":"/dev/a",)";
  test::RawServer gpsd([&](test::Connection& peer) {
    const std::string lines[] = {
        R"({"class":"VERSION","release":"3.22","proto_major":3})",
        std::string(20000, 'x'),
        tpv + R"("mode":1,)" + at + R"(00Z"})",
        tpv + R"("mode":3,"lat":48,"lon":11})",
        tpv + R"("mode":2,"time":"2026-11-20T12:00:00Z"})",
        tpv + R"("mode":2,)" + at + R"(01.250Z","eph":20,"altMSL":500})",
        tpv + R"("mode":3,)" + at + R"(01.250Z","epx":3,"epy":4,"altMSL":500,"epv":7,"speed":2,"track":90})",
        R"({"class":"SKY","device":"/dev/a","hdop":1})",
        R"({"class":"TPV","device":"/dev/b","mode":3,)" + at + R"(02Z","eph":4})",
        tpv + R"("mode":3,)" + at + R"(03Z"})",
        R"({"class":"TPV","device":"/dev/b","mode":2,)" + at + R"(04Z","eph":4,"altMSL":1})"};
    std::string all;
    for (const auto& line : lines) all += line + "\r\n";
    peer.send(all);
    peer.waitForPeerToLeave();
  });
  Diary diary;
  const auto receiver = openGpsd(gpsd.host(), diary);
  receiver->start(-1);
  ASSERT_TRUE(diary.waitForFixes(3));
  const auto when = [](double seconds) { return platform::dateSince1970(1795176000 + seconds); };
  const Diary::Fixes expected = {{.coordinate = {48, 11},
                                  .altitude = 500,
                                  .horizontalAccuracy = 5,
                                  .verticalAccuracy = 7,
                                  .course = 90,
                                  .speed = 2,
                                  .timestamp = when(1.25)},
                                 {.coordinate = {48, 11}, .horizontalAccuracy = 10, .timestamp = when(3)},
                                 {.coordinate = {48, 11}, .horizontalAccuracy = 4, .timestamp = when(4)}};
  EXPECT_EQ(diary.fixes(), expected);
}

}  // namespace
}  // namespace tarvo::receivers

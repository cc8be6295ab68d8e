#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "Diary.h"
#include "Line.h"
#include "receivers/Feed.h"
#include "receivers/Nmea.h"
#include "support/TempDir.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using test::Diary;
using test::Drive;
using test::Line;
using enum Condition;

TEST(Nmea, ReadsARecordingOnceAndKeepsItsDates) {
  const Drive drive(1175860800);  // 2007-04-06
  const test::TempDir folder;
  const std::string file = folder.path() / "drive.nmea";
  std::ofstream(file) << drive.text(0, drive.sentences.size());
  Diary diary;

  const auto receiver = openNmea(file, {.built = platform::dateSince1970(1.7e9)}, diary);
  receiver->start(-1);

  ASSERT_TRUE(diary.waitForConditions({searching, receiving, ended}));
  const auto fixes = diary.fixes();
  drive.expect(fixes);
  ASSERT_EQ(fixes.size(), drive.made.fixes.size());
  EXPECT_NEAR(fixes[99].altitude, drive.made.fixes[99].altitude, 0.1);
  EXPECT_NEAR(fixes[99].horizontalAccuracy, drive.made.fixes[99].accuracy, 0.1);
  receiver->stop();
  ASSERT_TRUE(diary.waitForConditions({searching, receiving, ended, resting}));
  receiver->start(-1);
  EXPECT_TRUE(diary.waitForConditions({searching, receiving, ended, resting, ended}));
  EXPECT_EQ(diary.fixes().size(), drive.made.fixes.size());
}

TEST(Nmea, FollowsADeviceThatIsPulledAndPluggedInAgain) {
  const Drive drive(1175860800 + 1024 * 7 * 86400);
  const test::TempDir folder;
  const auto device = folder.path() / "ttyUSB0";
  Diary diary;
  const auto receiver = openNmea(device, {.baudRate = 115200}, diary);
  receiver->start(-1);
  ASSERT_TRUE(diary.waitForConditions({lost}));
  EXPECT_EQ(diary.lines()[0], "NMEA from " + device.string() + ": no such file or directory, it is tried again");

  std::optional<Line> line(device);
  ASSERT_TRUE(diary.waitForConditions({lost, searching}));
  const std::string text = drive.text(0, 3);
  ASSERT_TRUE(line->send(text.substr(0, 100)) && line->send(text.substr(100)) && diary.waitForFixes(2));
  pollfd echo{line->end, POLLIN, 0};
  EXPECT_EQ(::poll(&echo, 1, 0), 0) << "the device gets its own sentences back";
  line.reset();
  ASSERT_TRUE(diary.waitForConditions({lost, searching, receiving, lost}));
  line.emplace(device);
  ASSERT_TRUE(diary.waitForConditions({lost, searching, receiving, lost, searching}));
  // It falls silent within the last.
  const std::string rest = drive.text(3, 6);
  ASSERT_TRUE(line->send(rest.substr(0, rest.rfind("$GPGGA"))) && diary.waitForFixes(6));

  drive.expect(diary.fixes());
  receiver->stop();
  EXPECT_TRUE(diary.waitForConditions({lost, searching, receiving, lost, searching, receiving, resting}));
}

/// Gives a fix for each byte that comes.
struct Bytes final : Feed {
  explicit Bytes(int itsEnd) : end(itsEnd) {}
  ~Bytes() override { ::close(end); }
  int descriptor() const override { return end; }
  std::size_t room() const override { return 100; }
  Got read(Diary::Fixes& fixes) override {
    char bytes[100];
    const ssize_t count = ::recv(end, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count == 0) throw Lost("Gone");
    fixes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return {fixes.size()};
  }
  const int end;
};

TEST(Feed, IsTriedEverMoreSeldomAndAgainSoonAfterAFix) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  std::vector<Waiting::Clock::time_point> tries;
  const OpenFeed open = [&](Waiting&) -> std::unique_ptr<Feed> {
    tries.push_back(Waiting::Clock::now());
    if (tries.size() != 6) throw Lost("Not there");
    return std::make_unique<Bytes>(ends[0]);
  };
  Diary diary;
  {
    const auto receiver =
        receiverOf("it", open, diary, {.shortestPause = 100ms, .longestPause = 1000ms, .silence = 300ms});
    receiver->start(-1);
    ASSERT_TRUE(diary.waitForConditions({lost, searching}));
    ASSERT_EQ(::write(ends[1], "12", 2), 2);
    ASSERT_TRUE(diary.waitForConditions({lost, searching, receiving, searching}));  // after a silence
    ASSERT_EQ(::write(ends[1], "3", 1), 1);
    ASSERT_TRUE(diary.waitForConditions({lost, searching, receiving, searching, receiving}) && diary.waitForFixes(3));
    ::close(ends[1]);
    ASSERT_TRUE(diary.waitForConditions({lost, searching, receiving, searching, receiving, lost}));
  }
  const int least[] = {100, 200, 400, 800, 1000};
  for (int i = 0; i < 5; ++i) EXPECT_GE(tries[i + 1] - tries[i], std::chrono::milliseconds(least[i])) << i;
  EXPECT_EQ(diary.lines().back(), "it: gone, it is tried again");
}

}  // namespace
}  // namespace tarvo::receivers

#include "platform/urlsession/BackgroundSession.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <mutex>

#include <tarvo/platform/Environment.h>

#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "support/LogDiary.h"
#include "support/RawServer.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

using test::Connection;
using test::LogDiary;
using test::RawServer;
using test::TempDir;
using Lines = std::vector<std::string>;

/// Writes down what it is told.
struct Diary : BackgroundSessionDelegate {
  void didReceive(BackgroundSession&, const std::string& data) override { tell("data " + data); }
  void didCompleteWithError(BackgroundSession&, const URLSessionUploadTask& task, std::optional<int> status,
                            std::optional<Error> error) override {
    tell(concat(task.file.filename().native(), " ", status, " ", error ? error->code : 0));
  }
  void urlSessionDidFinishEvents(BackgroundSession&) override { tell("finished"); }
  void tell(const std::string& line) {
    std::lock_guard lock(mutex);
    lines.push_back(line);
  }
  /// What was told since the last call, once all is quiet.
  Lines take() {
    EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
    std::lock_guard lock(mutex);
    return std::exchange(lines, {});
  }
  std::mutex mutex;
  Lines lines;
};

void write(const std::filesystem::path& file, std::string_view bytes) {
  std::ofstream(file, std::ios::binary) << bytes;
}

/// A redirect keeps the connection.
std::string reply(int status, const std::string& body = "") {
  return test::httpReply(status, body, status == 308 ? "Location: /again\r\n" : "Connection: close\r\n");
}

/// A session in a home with a file to upload.
class Uploading : public testing::Test {
 protected:
  struct Seen {
    std::string head, body;
  };
  /// Uploads the file to a server that replies so.
  void upload(
      const Lines& replies, const std::function<void()>& atHead = [] {}) {
    seen.clear();
    RawServer server([&](Connection& connection) {
      const std::string head = connection.readHead();
      seen.push_back({head, {}});
      seen.back().head.replace(head.find(server.host()), server.host().size(), "HOST");
      atHead();
      seen.back().body = connection.readBody(head);
      connection.send(replies.at(seen.size() - 1));
      // Of a kept connection the next request is dropped, so that it comes once more.
      if (replies.size() > seen.size()) connection.readRequest();
    });
    const auto task = session->uploadTask({server.url("/uplog"),
                                           "POST",
                                           {{"Content-Type", "multipart/form-data;boundary=boundary"},
                                            {"Connection", "Keep-Alive"},
                                            {"Authorization", "Basic x"}},
                                           "not this"},
                                          file);
    for (int times = 0; times < 2; ++times) session->resume(task);
    told = diary.take();
  }
  struct Home : TempDir {
    Home() { setHomeDirectory(path()); }
  } home;
  const std::filesystem::path file = home.path() / "log";
  Diary diary;
  const std::shared_ptr<BackgroundSession> session = BackgroundSession::open({"logs"}, diary);
  std::vector<Seen> seen;  ///< by the server, "HOST" for its name
  Lines told;
};

TEST_F(Uploading, StreamsTheFileAndTellsItsDelegateInOrder) {
  const std::string content = test::largeBody();
  const auto grow = [this] { std::ofstream(file, std::ios::app) << "more"; };
  struct Case {
    std::string content;
    Lines replies, told;
    std::function<void()> atHead = [] {};
  };
  const Case cases[] = {{content, {reply(200, "\xff\n")}, {"data \xff\n", "log 200 0", "finished"}},
                        {"", {reply(500)}, {"log 500 0", "finished"}},
                        {content, {reply(308), reply(200, "ok")}, {"data ok", "log 200 0", "finished"}},
                        {content, {reply(200)}, {"log 200 0", "finished"}, grow}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    write(file, c.content);
    upload(c.replies, c.atHead);
    EXPECT_EQ(told, c.told);
    ASSERT_EQ(seen.size(), c.replies.size());
    const std::string fixed =
        " HTTP/1.1\r\nHost: HOST\r\nContent-Type: multipart/form-data;boundary=boundary\r\nConnection: Keep-Alive\r\n";
    const std::string length = concat("Content-Length: ", c.content.size(), "\r\n\r\n");
    EXPECT_EQ(seen[0].head, "POST /uplog" + fixed + "Authorization: Basic x\r\n" + length);
    if (seen.size() == 2) {
      EXPECT_EQ(seen[1].head, "POST /again" + fixed + length);
    }
    for (const Seen& request : seen) EXPECT_TRUE(request.body == c.content);
  }
}

TEST_F(Uploading, TellsWhyAFileWasNotSent) {
  write(file, std::string(30'000'000, 'x'));
  upload({""}, [&] { std::filesystem::resize_file(file, 1000); });
  EXPECT_EQ(told, (Lines{"log nil -1021", "finished"}));
  for (const auto& [url, name, code] : {std::tuple("http://127.0.0.1:1/", "log", urlError::cannotConnectToHost),
                                        {"http://no..name/", "log", urlError::cannotFindHost},
                                        {"ftp://localhost/", "log", urlError::unsupportedURL},
                                        {"nonsense", "log", urlError::badURL},
                                        {"http://127.0.0.1:1/", "absent", -1100},
                                        {"http://127.0.0.1:1/", "Library", -1101}}) {
    session->resume(session->uploadTask({url, "POST"}, home.path() / name));
    EXPECT_EQ(diary.take(), (Lines{concat(name, " nil ", code), "finished"}));
  }
}

/// A journal with an upload under way and one that has ended.
class Journal : public testing::Test {
 protected:
  Journal() {
    TransferJournal journal(folder.path(), "j");
    journal.putResumed({1, {"http://a/\xff", "POST", {{"a", "\xff"}}}, "/f\xff"});
    journal.putResumed({kMost, {"http://b/"}, "/g"});
    journal.putEnded(kMost, TransferOutcome{200, std::string("\0\xff", 2), error});
    whole = readFile(file).value();
    firstEnd = whole.find('\n') + 1;
    line = whole.substr(0, firstEnd);
  }
  auto reopened(const std::string& bytes) const {
    write(file, bytes);
    return TransferJournal(folder.path(), "j").takeRestored();
  }
  static constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  const TempDir folder;
  const std::filesystem::path file = folder.path() / "j.jsonl";
  LogDiary& log = LogDiary::installed();
  const Error error{NSURLErrorDomain, -1005, "lost", {{"k", "v"}}};
  std::string whole, line;
  std::size_t firstEnd = 0;
};

TEST_F(Journal, IsTakenUpByItsWholeLinesWhereverItIsCut) {
  const std::size_t secondEnd = whole.find('\n', firstEnd) + 1;
  for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
    log.clear();
    const auto restored = reopened(whole.substr(0, cut));
    ASSERT_EQ(restored.size(), cut >= secondEnd ? 2U : cut >= firstEnd ? 1U : 0U) << cut;
    const bool damaged = cut != 0 && whole[cut - 1] != '\n';
    ASSERT_EQ(log.count("damaged lines of its journal are dropped"), damaged ? 1U : 0U) << cut;
    if (restored.empty()) continue;
    ASSERT_EQ(restored.back().outcome.has_value(), cut == whole.size()) << cut;
    ASSERT_EQ(restored[0].task.originalRequest.url, "http://a/\xff");
    ASSERT_EQ(restored[0].task.originalRequest.value("A"), "\xff");
    ASSERT_EQ(restored[0].task.file, "/f\xff");
  }
  const auto record = reopened(whole).at(1);
  EXPECT_EQ(record.task.taskIdentifier, kMost);
  EXPECT_EQ(record.outcome->statusCode, 200);
  EXPECT_EQ(record.outcome->data, std::string("\0\xff", 2));
  EXPECT_EQ(record.outcome->error->description(), error.description());
}

TEST_F(Journal, LosesHostileLinesAndGoesByTheLatestOfAnUpload) {
  const auto with = [this](const std::string& from, const std::string& to) {
    return std::string(line).replace(line.find(from), from.size(), to);
  };
  const std::string ended = with("\"identifier\"", "\"outcome\":{\"status\":204},\"identifier\""),
                    over = "{\"identifier\":1,\"over\":true}\n", none;  // no file
  const struct {
    std::string bytes, left;
    std::size_t restored;
  } cases[] = {{std::string(100'000, '[') + "\n", none, 0},
               {with("\"identifier\":1", "\"identifier\":9223372036854775808"), none, 0},
               {with("\"identifier\"", "\"outcome\":{\"status\":1},\"identifier\""), none, 0},
               {line + ended, ended, 1},
               {ended + line, ended, 1},  // or it would be sent again
               {over + whole + over, whole.substr(firstEnd), 1},
               {line + over + line, line, 1},  // a number that is used again
               {line + over, none, 0}};
  for (const auto& [bytes, left, restored] : cases) {
    EXPECT_EQ(reopened(bytes).size(), restored) << bytes.substr(0, 300);
    ASSERT_EQ(std::filesystem::exists(file), restored != 0);
    if (restored != 0) {
      EXPECT_EQ(readFile(file).value(), left);
      continue;
    }
    EXPECT_EQ(reopened(bytes + whole).size(), 2U) << bytes.substr(0, 300);
    EXPECT_EQ(readFile(file).value(), whole);
  }
}

TEST_F(Journal, DoesNotGrowWithWhatIsOver) {
  std::filesystem::remove(file);
  write(folder.path() / ".writing-killed", "credentials");
  TransferJournal journal(folder.path(), "j");
  EXPECT_FALSE(std::filesystem::exists(folder.path() / ".writing-killed"));
  for (std::int64_t i = 1; i <= 1000; ++i) {
    journal.putResumed({i, {"http://a/", "POST", {{"Authorization", std::string(200, 'x')}}}, "/log"});
    if (i > 1) journal.remove(i - 1);
    ASSERT_LT(std::filesystem::file_size(file), 70'000U);
  }
  journal.remove(1000);
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Journal, BelongsToItsUserAloneAndToTheFirstThatOpensIt) {
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  TransferJournal first(folder.path(), "x"), second(folder.path(), "x");
  EXPECT_EQ(log.count("Background session x: transfers are not journalled: another process has the session"), 1U);
  second.putResumed({1, {"http://a/"}, "/f"});
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "x.jsonl"));
}

}  // namespace
}  // namespace tarvo::platform

#include "platform/urlsession/BackgroundSession.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <limits>
#include <mutex>

#include <tarvo/platform/Environment.h>

#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "support/FreshProcess.h"
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

/// Writes down what it is told; ends the process when it is told `fatal`.
struct Diary : BackgroundSessionDelegate {
  explicit Diary(std::string deadly = "none") : fatal(std::move(deadly)) {}
  void didReceive(BackgroundSession&, const std::string& data) override { tell("data " + data); }
  void didCompleteWithError(BackgroundSession&, const URLSessionUploadTask& task, std::optional<int> status,
                            std::optional<Error> error) override {
    tell(concat(task.file.filename().native(), " ", status, " ", error ? error->code : 0));
  }
  void urlSessionDidFinishEvents(BackgroundSession&) override { tell("finished"); }
  void tell(const std::string& line) {
    if (line == fatal) ::kill(::getpid(), SIGKILL);
    std::lock_guard lock(mutex);
    lines.push_back(line);
  }
  /// What was told since the last call, once all is quiet.
  Lines take() {
    EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
    std::lock_guard lock(mutex);
    return std::exchange(lines, {});
  }
  const std::string fatal;
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

/// When a process is killed, and how many requests there are in all: before the reply, between reply and delegate,
/// between the delegate's two calls.
const std::pair<std::string, int> kKills[] = {{"request", 2}, {"data \xff", 1}, {"log 200 0", 1}};

class Killed : public testing::TestWithParam<std::pair<std::string, int>> {
 protected:
  Killed() {
    setHomeDirectory(home.path());
    write(file, "bytes");
  }
  /// Uploads the file in a process that is killed at that moment.
  void uploadUntilKilledAt(const std::string& moment) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = test::startProcess([&] {  // this one has no second thread yet
      std::string url(100, '\0');
      url.resize(static_cast<std::size_t>(::read(pipe[0], url.data(), url.size())));
      Diary diary(moment);
      const auto session = BackgroundSession::open({"logs/1"}, diary);
      session->resume(session->uploadTask({url, "POST", {{"Authorization", "Basic \xff"}}}, file));
      diary.take();
      return 0;
    });
    server.emplace([this, child, atRequest = moment == "request"](Connection& connection) {
      const std::string head = connection.readHead();
      if (head.find("Authorization: Basic \xff\r\n") != head.npos) ++requests;
      if (requests == 1 && atRequest) ::kill(child, SIGKILL);
      connection.readBody(head);
      connection.send(reply(200, "\xff"));
    });
    ASSERT_GT(::write(pipe[1], server->url().data(), server->url().size()), 0);
    ASSERT_EQ(test::endOf(child), -SIGKILL);
  }

  const TempDir home;
  const std::filesystem::path file = home.path() / "log",
                              journal = home.path() / "Library" / "Transfers" / "logs%2F1.jsonl";
  std::atomic<int> requests{0};
  std::optional<RawServer> server;
};

TEST_P(Killed, ProcessIsTakenUpByTheNextWhereItStopped) {
  ASSERT_NO_FATAL_FAILURE(uploadUntilKilledAt(GetParam().first));
  struct stat info {};
  EXPECT_TRUE(::stat(journal.c_str(), &info) == 0 && (info.st_mode & 0777U) == 0600U);

  Diary diary;
  const auto session = BackgroundSession::open({"logs/1"}, diary);
  std::vector<std::size_t> tasks;
  const auto count = [&](const std::vector<URLSessionUploadTask>& all) { tasks.push_back(all.size()); };
  session->getAllTasks(count);
  session->finishEvents();
  EXPECT_EQ(diary.take(), Lines{}) << "it rests";
  EXPECT_TRUE(session->hasTaskFor(file));
  for (int times = 0; times < 2; ++times) session->deliverEvents();
  EXPECT_EQ(diary.take(), (Lines{"data \xff", "log 200 0", "finished"}));
  EXPECT_EQ(requests, GetParam().second);
  session->getAllTasks(count);
  diary.take();
  EXPECT_EQ(tasks, (std::vector<std::size_t>{1, 0}));
  EXPECT_FALSE(session->hasTaskFor(file) || std::filesystem::exists(journal));
}

INSTANTIATE_TEST_SUITE_P(At, Killed, testing::ValuesIn(kKills));

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
               {"\n{}\n[]\n\xff\n", none, 0},
               {with("\"identifier\":1", "\"identifier\":9223372036854775808"), none, 0},
               {with("\"POST\"", "{\"base64\":\"A\"}"), none, 0},
               {with("\"headers\":[", "\"headers\":[[1,2],"), none, 0},
               {with("\"identifier\"", "\"outcome\":{\"status\":1},\"identifier\""), none, 0},
               {"{\"identifier\":5,\"outcome\":{\"status\":204}}\n", none, 0},
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

/// All that this process has handed to `write` so far.
std::uint64_t bytesWritten() {
  const std::string counters = readFile("/proc/self/io").value();
  return std::stoull(counters.substr(counters.find("wchar: ") + 7));
}

TEST_F(Journal, CostsTheSameForEachUploadHoweverManyWait) {
  constexpr std::int64_t uploads = 1600;
  std::filesystem::remove(file);
  write(folder.path() / ".writing-killed", "credentials");
  TransferJournal journal(folder.path(), "j");
  EXPECT_FALSE(std::filesystem::exists(folder.path() / ".writing-killed"));
  const auto before = bytesWritten();
  const URLRequest request{"http://a/", "POST", {{"Authorization", std::string(200, 'x')}}};
  for (std::int64_t i = 1; i <= uploads; ++i) journal.putResumed({i, request, concat("/log/", i)});
  const auto waiting = std::filesystem::file_size(file);
  for (std::int64_t i = 1; i <= uploads; ++i) {
    journal.putEnded(i, TransferOutcome{200, "ok", {}});
    journal.remove(i);
    if (i + 5 != uploads) continue;
    EXPECT_LT(std::filesystem::file_size(file), 70'000U) << "what is over goes";
  }
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_LT(bytesWritten() - before, 4 * waiting);
}

TEST_F(Journal, BelongsToTheFirstThatOpensItAndTellsWhatItCannotWrite) {
  const URLSessionUploadTask task{1, {"http://a/"}, "/f"};
  {
    TransferJournal first(folder.path() / "in", "x"), second(folder.path() / "in", "x");
    EXPECT_EQ(log.count("Background session x: transfers are not journalled: another process has the session"), 1U);
    second.putResumed(task);
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "in" / "x.jsonl"));
    std::filesystem::remove_all(folder.path() / "in");
    log.clear();
    first.putResumed(task);
    first.putResumed(task);
    EXPECT_EQ(log.count("Background session x: transfers are not journalled: "), 1U);
  }
  write(folder.path() / "file", "");
  std::filesystem::create_directory(folder.path() / "d.jsonl");
  TransferJournal(folder.path() / "file", "f").putResumed(task);
  TransferJournal(folder.path(), "d").putResumed(task);
  EXPECT_EQ(log.count("transfers are not journalled: "), 3U);
}

}  // namespace
}  // namespace tarvo::platform

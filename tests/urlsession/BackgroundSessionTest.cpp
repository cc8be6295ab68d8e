#include "platform/urlsession/BackgroundSession.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <future>
#include <limits>
#include <mutex>
#include <optional>

#include <tarvo/platform/Environment.h>

#include "platform/foundation/Activity.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"
#include "platform/urlsession/TransferJournal.h"
#include "support/LogDiary.h"
#include "support/TempDir.h"
#include "urlsession/RawServer.h"

namespace tarvo::platform {
namespace {

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
    EXPECT_TRUE(Activity::waitUntilIdle(Seconds(30)));
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

std::string readBody(int connection, std::size_t length) {
  std::string body(length, '\0');
  std::size_t got = 0;
  for (ssize_t n; got < length && (n = ::recv(connection, &body[got], length - got, 0)) > 0;)
    got += static_cast<std::size_t>(n);
  body.resize(got);
  return body;
}

std::size_t lengthIn(const std::string& head) {
  const auto found = head.find("Content-Length: ");
  return found == head.npos ? 0 : std::stoul(head.substr(found + 16));
}

std::string reply(int status, const std::string& body = "") {
  return concat("HTTP/1.1 ", status, " X\r\nContent-Length: ", body.size(), "\r\n",
                status == 308 ? "Location: /again\r\n\r\n" : "Connection: close\r\n\r\n", body);
}

TEST(BackgroundSession, StreamsTheFileAndTellsItsDelegateInOrder) {
  const TempDir home;
  setHomeDirectory(home.path());
  const auto file = home.path() / "log";
  std::string content(3'000'000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31 % 251);
  const std::string large(30'000'000, 'x');

  struct Case {
    std::string name, content;
    Lines replies, told;
    std::function<void()> atHead = [] {};
  };
  const Case cases[] = {
      {"log", content, {reply(200, "\xff\n")}, {"data \xff\n", "log 200 0", "finished"}},
      {"log", "", {reply(500)}, {"log 500 0", "finished"}},
      {"log", content, {reply(308), reply(200, "ok")}, {"data ok", "log 200 0", "finished"}},
      {"log", content, {reply(200)}, {"log 200 0", "finished"}, [&] { std::ofstream(file, std::ios::app) << "more"; }},
      {"log", large, {""}, {"log nil -1021", "finished"}, [&] { std::filesystem::resize_file(file, 1000); }},
      {"absent", "", {}, {"absent nil -1100", "finished"}},
      {"Library", "", {}, {"Library nil -1101", "finished"}},
  };
  std::mutex mutex;  // the server's turn, or the test's
  std::size_t at = 0, requests = 0;
  Lines heads, bodies;
  RawServer server([&](int connection) {
    std::lock_guard lock(mutex);
    const Case& c = cases[at];
    heads.push_back(RawServer::readHead(connection));
    c.atHead();
    bodies.push_back(readBody(connection, lengthIn(heads.back())));
    RawServer::send(connection, c.replies.at(requests++));
    // Of a kept connection the next request is dropped, so that it comes once more.
    if (c.replies.size() > requests) readBody(connection, lengthIn(RawServer::readHead(connection)));
  });
  const std::string host = " HTTP/1.1\r\nHost: " + server.host() + "\r\n";
  const std::string fixed = "Content-Type: multipart/form-data;boundary=boundary\r\nConnection: Keep-Alive\r\n";
  const URLRequest request{server.url("/uplog"),
                           "POST",
                           {{"Content-Type", "multipart/form-data;boundary=boundary"},
                            {"Connection", "Keep-Alive"},
                            {"Authorization", "Basic x"}},
                           "not this"};
  Diary diary;
  const auto session = BackgroundSession::open({"logs"}, diary);
  for (; at < std::size(cases); ++at) {
    const Case& c = cases[at];
    SCOPED_TRACE(at);
    write(file, c.content);
    std::unique_lock lock(mutex);
    requests = 0;
    heads.clear();
    bodies.clear();
    lock.unlock();
    const auto task = session->uploadTask(request, home.path() / c.name);
    session->resume(task);
    session->resume(task);
    EXPECT_EQ(diary.take(), c.told);
    lock.lock();
    EXPECT_EQ(requests, c.replies.size());
    if (requests == 0 || c.replies.front().empty()) continue;
    const std::string length = concat("Content-Length: ", c.content.size(), "\r\n\r\n");
    EXPECT_EQ(heads.front(), "POST /uplog" + host + fixed + "Authorization: Basic x\r\n" + length);
    EXPECT_TRUE(bodies.front() == c.content);
    if (requests == 2) {
      EXPECT_EQ(heads.back(), "POST /again" + host + fixed + length);
    }
    EXPECT_TRUE(bodies.back() == c.content);
  }
  const auto refused = session->uploadTask({"http://127.0.0.1:1/", "POST"}, file);
  session->resume(refused);
  EXPECT_EQ(diary.take(), (Lines{"log nil -1004", "finished"}));
}

TEST(BackgroundSession, IsOneForEachIdentifierWithItsFirstDelegate) {
  const TempDir home;
  setHomeDirectory(home.path());
  auto& log = LogDiary::installed();
  Diary first, second;
  const auto session = BackgroundSession::open({"logs"}, first);
  const auto other = BackgroundSession::open({"../other"}, second);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(BackgroundSession::open({"logs"}, second), session);
  EXPECT_EQ(log.lines(), Lines{"A background URLSession with identifier logs already exists!"});
  EXPECT_EQ(&session->delegate(), &first);
  EXPECT_NE(other, session);
  EXPECT_EQ(session->description(), "<BackgroundSession: logs>");
  session->finishEvents();
  EXPECT_EQ(first.take(), Lines{"finished"});
  EXPECT_EQ(second.take(), Lines{});
}

TEST(BackgroundSession, GoesOnWhereAKilledProcessStopped) {
  struct Case {
    std::string diesAt;
    std::size_t requests;
  };
  // Before the reply, between reply and delegate, between the delegate's two calls.
  const Case cases[] = {{"request", 2}, {"data \xff", 1}, {"log 200 0", 1}};
  const TempDir home;
  setHomeDirectory(home.path());
  write(home.path() / "log", "bytes");
  int toChild[std::size(cases)][2];
  pid_t children[std::size(cases)];
  // All children are made before this process has a second thread.
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_EQ(::pipe(toChild[i]), 0);
    children[i] = ::fork();
    if (children[i] != 0) continue;
    ::close(toChild[i][1]);
    std::string url(100, '\0');
    const ssize_t length = ::read(toChild[i][0], url.data(), url.size());
    if (length <= 0) ::_exit(1);
    url.resize(static_cast<std::size_t>(length));
    Diary diary(cases[i].diesAt);
    const auto session = BackgroundSession::open({concat("logs/", i)}, diary);
    session->resume(session->uploadTask({url, "POST", {{"Authorization", "Basic \xff"}}}, home.path() / "log"));
    diary.take();
    ::_exit(0);
  }
  std::mutex mutex;  // the server's turn, or the test's
  pid_t victim = 0;
  std::size_t requests = 0;
  std::string head;
  RawServer server([&](int connection) {
    std::lock_guard lock(mutex);
    ++requests;
    head = RawServer::readHead(connection);
    if (victim != 0) ::kill(victim, SIGKILL);
    victim = 0;
    readBody(connection, lengthIn(head));
    RawServer::send(connection, reply(200, "\xff"));
  });
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.diesAt);
    std::unique_lock lock(mutex);
    requests = 0;
    if (c.diesAt == "request") victim = children[i];
    lock.unlock();
    ASSERT_GT(::write(toChild[i][1], server.url().data(), server.url().size()), 0);
    int status = 0;
    ::waitpid(children[i], &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    const auto journal = home.path() / "Library" / "Transfers" / concat("logs%2F", i, ".jsonl");
    struct stat info {};
    EXPECT_EQ(::stat(journal.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);

    Diary diary;
    const auto session = BackgroundSession::open({concat("logs/", i)}, diary);
    std::size_t tasks = 0;
    const auto count = [&](const std::vector<URLSessionUploadTask>& all) { tasks = all.size(); };
    session->getAllTasks(count);
    session->finishEvents();
    EXPECT_EQ(diary.take(), Lines{}) << "it rests";
    EXPECT_EQ(tasks, 1U);
    EXPECT_TRUE(session->hasTaskFor(home.path() / "log"));
    session->deliverEvents();
    session->deliverEvents();
    EXPECT_EQ(diary.take(), (Lines{"data \xff", "log 200 0", "finished"}));
    lock.lock();
    EXPECT_NE(head.find("Authorization: Basic \xff\r\n"), head.npos);
    EXPECT_EQ(requests, c.requests);
    EXPECT_FALSE(std::filesystem::exists(journal));
    session->getAllTasks(count);
    diary.take();
    EXPECT_EQ(tasks, 0U);
    EXPECT_FALSE(session->hasTaskFor(home.path() / "log"));
  }
}

TEST(TransferJournal, TakesUpWholeLinesOfADamagedFile) {
  const TempDir folder;
  const std::string name = "j";
  const auto file = folder.path() / "j.jsonl";
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  {
    TransferJournal journal(folder.path(), name);
    journal.putResumed({1, {"http://a/\xff", "POST", {{"a", "\xff"}}}, "/f\xff"});
    journal.putResumed({most, {"http://b/"}, "/g"});
    const Error error{NSURLErrorDomain, -1005, "lost", {{"k", "v"}}};
    journal.putEnded(most, TransferOutcome{200, std::string("\0\xff", 2), error});
  }
  const std::string whole = readFile(file).value();
  const auto reopened = [&](const std::string& bytes) {
    write(file, bytes);
    TransferJournal journal(folder.path(), name);
    return journal.takeRestored();
  };
  auto& log = LogDiary::installed();
  const std::size_t firstEnd = whole.find('\n') + 1, secondEnd = whole.find('\n', firstEnd) + 1;
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
  EXPECT_EQ(record.task.taskIdentifier, most);
  EXPECT_EQ(record.outcome->statusCode, 200);
  EXPECT_EQ(record.outcome->data, std::string("\0\xff", 2));
  EXPECT_EQ(record.outcome->error->description(), (Error{NSURLErrorDomain, -1005, "lost", {{"k", "v"}}}.description()));

  const std::string line = whole.substr(0, firstEnd);
  const auto with = [](std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
  };
  const Lines hostile = {std::string(100'000, '[') + "\n",
                         "\n{}\n[]\n\xff\n",
                         with(line, "\"identifier\":1", "\"identifier\":9223372036854775808"),
                         with(line, "\"timeout\":60", "\"timeout\":\"60\""),
                         with(line, "\"POST\"", "{\"base64\":\"A\"}"),
                         with(line, "\"headers\":[", "\"headers\":[[1,2],"),
                         with(line, "\"identifier\"", "\"outcome\":{\"status\":1},\"identifier\""),
                         with(line, "\"identifier\"", "\"outcome\":{\"error\":[]},\"identifier\""),
                         "{\"identifier\":5,\"outcome\":{\"status\":204}}\n",
                         "{\"identifier\":5,\"over\":1}\n"};
  for (const std::string& bad : hostile) {
    EXPECT_EQ(reopened(bad).size(), 0U) << bad.substr(0, 300);
    EXPECT_EQ(reopened(bad + whole).size(), 2U) << bad.substr(0, 300);
    EXPECT_EQ(readFile(file).value(), whole) << "the rest is kept";
  }
  const std::string ended = with(line, "\"identifier\"", "\"outcome\":{\"status\":204},\"identifier\"");
  for (const std::string& twice : {line + ended, ended + line}) {
    const auto restored = reopened(twice);
    ASSERT_EQ(restored.size(), 1U);
    EXPECT_TRUE(restored[0].outcome) << "it would be sent again";
  }
  const std::string over = "{\"identifier\":1,\"over\":true}\n";
  EXPECT_EQ(reopened(over + whole + over).size(), 1U);
  EXPECT_EQ(readFile(file).value(), whole.substr(firstEnd)) << "written anew without what is over";
  EXPECT_EQ(reopened(line + over + line).size(), 1U) << "a number that is used again";
  EXPECT_EQ(reopened(line + over).size(), 0U);
  EXPECT_FALSE(std::filesystem::exists(file));
}

/// All that this process has handed to `write` so far.
std::uint64_t bytesWritten() {
  const std::string counters = readFile("/proc/self/io").value();
  return std::stoull(counters.substr(counters.find("wchar: ") + 7));
}

TEST(TransferJournal, CostsTheSameForEachUploadHoweverManyWait) {
  const TempDir folder;
  constexpr std::int64_t uploads = 1600;
  write(folder.path() / ".writing-killed", "credentials");
  TransferJournal journal(folder.path(), "x");
  EXPECT_FALSE(std::filesystem::exists(folder.path() / ".writing-killed"));
  const auto before = bytesWritten();
  const auto file = folder.path() / "x.jsonl";
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

TEST(TransferJournal, IsWholeAgainOnceThereIsRoom) {
  const TempDir folder;
  const auto file = folder.path() / "x.jsonl";
  auto& log = LogDiary::installed();
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit none{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &none), 0);
  {
    TransferJournal journal(folder.path(), "x");
    journal.putResumed({1, {"http://a/"}, "/1"});
    const auto size = std::filesystem::file_size(file);
    const rlimit little{size + 20, none.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
    journal.putResumed({2, {"http://a/"}, "/2"});
    journal.putResumed({3, {"http://a/"}, "/3"});
    EXPECT_EQ(std::filesystem::file_size(file), size) << "no half line";
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    EXPECT_EQ(log.count("transfers are not journalled: "), 1U);
    journal.putEnded(2, TransferOutcome{200, {}, {}});
    EXPECT_NE(readFile(file).value().find("/3"), std::string::npos) << "what could not be written before";
    std::filesystem::remove(file);
    journal.remove(3);
  }
  const auto restored = TransferJournal(folder.path(), "x").takeRestored();
  ASSERT_EQ(restored.size(), 2U);
  EXPECT_FALSE(restored[0].outcome);
  EXPECT_TRUE(restored[1].outcome);
}

TEST(TransferJournal, BelongsToTheFirstThatOpensItAndTellsWhatItCannotWrite) {
  const TempDir folder;
  auto& log = LogDiary::installed();
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

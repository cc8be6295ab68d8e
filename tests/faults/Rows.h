#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "faults/Driver.h"
#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

namespace tarvo::faults {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#ifdef NDEBUG
constexpr int kBoundSeconds = 20;
#else
constexpr int kBoundSeconds = 60;
#endif

/// A host in a process of its own. What it expects in the way of a test counts for its row.
struct Host : test::WholeSdk {
  Host() {
    SetUp();
    diary.onMessage(tellTheEnd);
  }
  void TestBody() override {}
  /// Keeps no line of the log: a row writes hundreds of megabytes of them.
  static void tellOnlyTheEnd() { platform::setSystemLogSink(tellTheEnd); }

 private:
  static void tellTheEnd(std::string_view line) {
    if (line.starts_with("Fatal error")) std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
  }
};

struct Row {
  std::string name;
  std::function<void(Host&)> body;
  std::string end = "lives";  ///< pattern: "lives", or the line with which it has to stop
  int seconds = kBoundSeconds;
};

/// What is wrong with a store that a row has left: its file, and that each number was given once, from 0 on.
inline std::string wrongWith(const std::filesystem::path& store) {
  sqlite3* database = nullptr;
  std::string wrong;
  const auto append = [](void* text, int, char** value, char**) {
    *static_cast<std::string*>(text) += value[0] ? value[0] : "";
    return 0;
  };
  sqlite3_open_v2(store.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
  sqlite3_exec(database, "PRAGMA quick_check", append, &wrong, nullptr);
  if (wrong == "ok") wrong.clear();
  // A row without a number owns one: the count that would have given it failed.
  sqlite3_exec(database,
               R"(SELECT "positions " || count(*) || " numbers " || count(DISTINCT "index") || " to " || max("index")
                  FROM Locations HAVING count("index") > count(DISTINCT "index") OR max("index") >= count(*))",
               append, &wrong, nullptr);
  sqlite3_close(database);
  return wrong;
}

/// Runs the row in a fresh process and expects its end, in time, and a whole store.
inline void run(Driver& driver, const Row& row) {
  if (row.name.find(driver.only) == row.name.npos) return;
  const test::TempDir folder;
  const auto told = folder.path() / "told";
  const pid_t child = test::startProcess([&] {
    ::setenv("TMPDIR", folder.path().c_str(), 1);
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
      ::dup2(::open(told.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), stream);
    auto* host = new Host;  // at the end its threads may still be at work
    row.body(*host);
    std::exit(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0);
    return 9;
  });
  pollfd ended{static_cast<int>(::syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
  const bool inTime = ::poll(&ended, 1, row.seconds * 1000) == 1;
  if (!inTime) ::kill(child, SIGKILL);
  const int status = test::endOf(child);
  ::close(ended.fd);
  std::ifstream file(told);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  std::string end = platform::concat("ended with ", status);
  if (status == 0) end = "lives";
  if (const auto at = text.find("Fatal error"); status == -SIGABRT && at != text.npos) end = text.substr(at);
  if (!inTime) end = "hangs";
  const bool asExpected = std::regex_search(end, std::regex(row.end), std::regex_constants::match_continuous);
  driver.expect(asExpected, row.name + ": " + end + "\n" + text.substr(text.size() - std::min(text.size(), 3000UL)));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path()))
    if (entry.path().filename() == ObjectStore::kFileName) {
      const std::string wrong = wrongWith(entry.path());
      driver.expect(wrong.empty(), row.name + ": " + wrong);
    }
}

}  // namespace tarvo::faults

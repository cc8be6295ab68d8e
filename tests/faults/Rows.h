#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include <cstdio>
#include <regex>

#include "faults/Driver.h"
#include "faults/StoreWork.h"
#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

namespace tarvo::faults {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
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
  std::int64_t seconds = kSanitized ? 180 : 60;
};

/// Runs the row in a fresh process and expects its end, in time, and a whole store in which each number was given once,
/// from 0 on.
inline void run(Driver& driver, const Row& row) {
  if (row.name.find(driver.only) == row.name.npos) return;
  const test::TempDir folder;
  const auto told = folder.path() / "told";
  const pid_t child = test::startProcess([&] {
    ::setenv("TMPDIR", folder.path().c_str(), 1);
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::alarm(static_cast<unsigned>(row.seconds));
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
      ::dup2(::open(told.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), stream);
    static auto* const host = new Host;  // at the end its threads may still be at work
    row.body(*host);
    std::exit(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0);
    return 9;
  });
  const int status = test::endOf(child);
  const std::string text = bytesOf(told);
  std::string end = status == 0 ? "lives" : status == -SIGALRM ? "hangs" : platform::concat("ended with ", status);
  if (const auto at = text.find("Fatal error"); status == -SIGABRT && at != text.npos) end = text.substr(at);
  const bool asExpected = std::regex_search(end, std::regex(row.end), std::regex_constants::match_continuous);
  driver.expect(asExpected, row.name + ": " + end + "\n" + text.substr(text.size() - std::min(text.size(), 3000UL)));
  for (const auto& entry : fs::recursive_directory_iterator(folder.path()))
    if (const auto store = entry.path(); store.filename() == ObjectStore::kFileName) {
      if (ask(store, "SELECT count(*) FROM sqlite_master") == "0") continue;  // its process has come no further
      // A row without a number owns one: the count that would have given it failed.
      const std::string wrong = ask(store, R"(SELECT count(DISTINCT "index") || " numbers up to " || max("index") FROM
          Locations HAVING count("index") > count(DISTINCT "index") OR max("index") >= count(*))");
      driver.expect(wrong.empty() && ask(store, "PRAGMA quick_check") == "ok", row.name + ": damaged " + wrong);
    }
}

inline int run(Driver driver, const std::vector<Row>& rows) {
  for (const Row& row : rows) run(driver, row);
  return driver.end(std::ssize(rows));
}

}  // namespace tarvo::faults

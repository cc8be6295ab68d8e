#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <regex>

#include "faults/Driver.h"
#include "faults/StoreWork.h"
#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

namespace tarvo::faults {

/// What a process of its own does first: it leaves no core, lives for so long at most, and writes into `told`.
inline void begin(const fs::path& told, std::int64_t seconds) {
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::alarm(static_cast<unsigned>(seconds));
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
    ::dup2(::open(told.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), stream);
}

/// How it ends: "lives" or "killed", with the line of a fatal error, or otherwise, with the last that it has written.
inline std::string endOf(pid_t process, const fs::path& told) {
  const int status = test::endOf(process);
  const std::string text = bytesOf(told);
  const auto fatal = text.find("Fatal error"), last = std::max(text.size(), 3000UL) - 3000;
  if (status == -SIGABRT && fatal != text.npos) return text.substr(fatal);
  if (status == 0 || status == -SIGKILL) return status == 0 ? "lives" : "killed";
  return platform::concat(status == -SIGALRM ? "hangs" : "ends", " with ", status, "\n", text.substr(last));
}

/// A host in a process of its own. What it expects in the way of a test counts for its row. A row writes hundreds of
/// megabytes of the log, so lines are kept only where they are looked at.
struct Host : test::WholeSdk {
  explicit Host(bool keepsLog) {
    SetUp();
    if (keepsLog)
      diary.onMessage(tellTheEnd);
    else
      platform::setSystemLogSink(tellTheEnd);
  }
  void TestBody() override {}

 private:
  static void tellTheEnd(std::string_view line) {
    if (line.starts_with("Fatal error")) std::fprintf(stderr, "%.*s\n", int(line.size()), line.data());
  }
};

struct Row {
  std::string name;
  std::function<void(Host&)> body;
  std::string end = "lives";  ///< pattern: that, or the line with which it has to stop
  std::int64_t seconds = 180;
  bool isQuiet = true;  ///< one that lives says nothing
  bool keepsLog = false;
};

/// Runs the row in a fresh process and expects its end, and a whole store in which each number was given once, from 0
/// on.
inline void run(Driver& driver, const Row& row) {
  if (row.name.find(driver.only) == row.name.npos) return;
  const test::TempDir folder;
  const fs::path told = folder.path() / "told";
  const std::string end = endOf(test::startProcess([&] {
                                  begin(told, row.seconds);
                                  ::setenv("TMPDIR", folder.path().c_str(), 1);
                                  static auto* const host =
                                      new Host(row.keepsLog);  // at the end its threads may still be at work
                                  row.body(*host);
                                  std::exit(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0);
                                  return 9;
                                }),
                                told);
  const bool asExpected = std::regex_search(end, std::regex(row.end), std::regex_constants::match_continuous);
  const bool isQuiet = end != "lives" || !row.isQuiet || bytesOf(told).empty();
  driver.expect(asExpected && isQuiet, row.name + ": " + end + (isQuiet ? "" : " and says " + bytesOf(told)));
  for (const fs::path& file : fs::recursive_directory_iterator(folder.path())) {
    if (file.filename() != ObjectStore::kFileName) continue;
    if (ask(file, "SELECT count(*) FROM sqlite_master") == "0") continue;  // its process has come no further
    // A row without a number owns one: the count that would have given it failed. What limits took keeps its numbers.
    const std::string wrong = ask(file, R"(SELECT count(DISTINCT "index") || " numbers up to " || max("index") FROM
        Locations HAVING count("index") > count(DISTINCT "index") OR max("index") >= count(*) + (SELECT
        coalesce(max('[' || replace(value, ' ', ',') || ']' ->> 2), 0) FROM _metadata WHERE name = 'Locations.keys'))");
    driver.expect(wrong.empty() && ask(file, "PRAGMA quick_check") == "ok", row.name + ": damaged " + wrong);
  }
}

inline int run(Driver driver, std::vector<Row> (*rowsOf)(const Driver&)) {
  const std::vector<Row> rows = rowsOf(driver);
  for (const Row& row : rows) run(driver, row);
  return driver.end(std::ssize(rows));
}

}  // namespace tarvo::faults

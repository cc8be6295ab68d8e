#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "Kit.h"
#include "platform/foundation/System.h"
#include "support/FreshProcess.h"

namespace tarvo::test {
namespace {

std::filesystem::path& ownFile() {
  static std::filesystem::path file;
  return file;
}

std::string tell(const std::string& what) {
  if (what == "sinceBoot") return std::to_string(platform::sinceBoot().count());
  if (what == "executableFile") return platform::executableFile();
  if (what == "programName") return platform::programName();
  std::string open;
  for (int i = 0; i < 1024; ++i) open += ::fcntl(i, F_GETFD) >= 0 ? '1' : '0';
  return open;
}

/// Ends whatever waits for ever.
struct Patience : testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { ::alarm(static_cast<unsigned>(3 * kPatience.count())); }
};

}  // namespace

const std::filesystem::path& program() { return ownFile(); }

std::string toldByChild(const std::function<void(int descriptor)>& child) {
  int ends[2];
  if (::pipe(ends) != 0) return "no pipe";
  ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
  const pid_t started = startProcess([&] {
    child(ends[1]);
    return 0;
  });
  ::close(ends[1]);
  std::string told;
  char bytes[1024];
  for (ssize_t count = 0; (count = ::read(ends[0], bytes, sizeof bytes)) > 0;)
    told.append(bytes, static_cast<std::size_t>(count));
  ::close(ends[0]);
  const int status = endOf(started);
  return status == 0 ? told : "ended with " + std::to_string(status);
}

std::string toldByAnother(const char* what, const std::filesystem::path& file, const char* name) {
  return toldByChild([&](int descriptor) {
    ::dup2(descriptor, STDOUT_FILENO);
    ::close(descriptor);
    ::execl(file.c_str(), name, "--tell", what, static_cast<char*>(nullptr));
    ::_exit(127);
  });
}

}  // namespace tarvo::test

/// `--tell WHAT` is for itself: what another program of the system would see.
int main(int argc, char** argv) {
  if (argc == 3 && argv[1] == std::string("--tell"))
    return std::fputs(tarvo::test::tell(argv[2]).c_str(), stdout) < 0 ? 1 : 0;
  tarvo::test::ownFile() = std::filesystem::absolute(argv[0]);
  if (!std::filesystem::exists(tarvo::test::program())) {
    std::fputs("start the kit by its path\n", stderr);
    return 2;
  }
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new tarvo::test::Patience);
  return RUN_ALL_TESTS();
}

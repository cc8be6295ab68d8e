#include "platform/foundation/FileLock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "platform/foundation/Text.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

using std::chrono::milliseconds;

TEST(FileLock, IsWaitedForUntilTheOtherLetsGo) {
  test::TempDir dir;
  const auto file = dir.path() / "l";
  FileLock first(file), second(file);
  ASSERT_TRUE(first.tryLock().value());
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_FALSE(second.lock(milliseconds(0)).value());
  EXPECT_EQ(second.holder(), concat("test_foundation (process ", ::getpid(), ")"));
  int looks = 0;
  const auto letGo = [&] {
    if (++looks == 3) first.unlock();
    return looks > 3;
  };
  EXPECT_TRUE(second.lock(std::chrono::hours(1), letGo).value());
  EXPECT_EQ(looks, 3);
  EXPECT_FALSE(first.lock(std::chrono::hours(1), [] { return true; }).value()) << "given up";
  for (const char* text : {"", "x", "7", "7 a\nb", "7 a\x1b[2J", "99999999999999999999 a"}) {
    std::ofstream(file) << text;
    EXPECT_EQ(first.holder(), text == std::string_view("7 a\nb") ? "a (process 7)" : "another process") << text;
  }
  EXPECT_FALSE(FileLock(dir.path() / "missing" / "l").tryLock());
}

}  // namespace
}  // namespace tarvo::platform

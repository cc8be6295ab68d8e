#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <set>

#include "Kit.h"
#include "platform/foundation/System.h"
#include "support/FreshProcess.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

TEST(TemporaryFile, IsNewAndForThisUserAlone) {
  ::umask(0);
  const test::TempDir folder;
  const std::string before = folder.path() / "a.XXXXXX.";
  std::set<std::string> names;
  for (int i = 0; i < 100; ++i) {
    std::string name = before + "XXXXXX";
    const Descriptor file(makeTemporaryFile(name));
    ASSERT_TRUE(file.isOpen());
    struct stat status {};
    ASSERT_EQ(::fstat(file.get(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFREG | S_IRUSR | S_IWUSR});
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    char byte = 'x';
    EXPECT_EQ(::write(file.get(), &byte, 1) + ::pread(file.get(), &byte, 1, 0), 2);
    EXPECT_TRUE(name.starts_with(before) && name.size() == before.size() + 6) << name;
    EXPECT_TRUE(std::all_of(name.end() - 6, name.end(), [](unsigned char c) { return c < 128 && std::isalnum(c); }));
    EXPECT_EQ(fs::file_size(name), 1U) << "under its name";
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 100U);
}

TEST(TemporaryFile, IsNotMadeWhereItCannotBe) {
  const test::TempDir folder;
  const auto errorOf = [&](const char* name) {
    std::string text = folder.path() / name;
    return makeTemporaryFile(text) == -1 ? errno : 0;
  };
  EXPECT_EQ(errorOf("missing/XXXXXX"), ENOENT);
  EXPECT_EQ(errorOf("XXXXX"), EINVAL);
  {
    const test::FewDescriptors none;
    EXPECT_EQ(errorOf("XXXXXX"), EMFILE);
  }
  EXPECT_TRUE(fs::is_empty(folder.path()));
}

struct FileLock : testing::Test {
  Descriptor open(int flags = O_RDWR) const {
    return Descriptor(::open(file.c_str(), flags | O_CREAT | O_CLOEXEC, 0600));
  }
  bool isHeld() const {
    errno = 0;
    const bool isRefused = !tryLockFile(open().get());
    EXPECT_EQ(errno, isRefused ? EWOULDBLOCK : 0);
    return isRefused;
  }
  const test::TempDir folder;
  const fs::path file = folder.path() / "lock";
};

TEST_F(FileLock, KeepsOtherOpeningsOutUntilItsOwnIsClosedEverywhere) {
  EXPECT_FALSE(tryLockFile(-1));
  EXPECT_EQ(errno, EBADF);
  for (const int flags : {O_RDWR, O_RDONLY, O_WRONLY}) {
    SCOPED_TRACE(flags);
    Descriptor mine = open(flags), copy(::dup(mine.get()));
    EXPECT_TRUE(tryLockFile(mine.get()));
    EXPECT_TRUE(tryLockFile(mine.get()) && tryLockFile(copy.get())) << "locked already";
    EXPECT_TRUE(isHeld());
    EXPECT_TRUE(isHeld()) << "though another opening was closed";
    std::ofstream(file) << "free to write";
    std::string text;
    EXPECT_TRUE(std::getline(std::ifstream(file), text));
    EXPECT_EQ(text, "free to write");
    mine.close();
    EXPECT_TRUE(isHeld()) << "by the copy";
    fs::rename(file, folder.path() / "renamed");
    EXPECT_FALSE(tryLockFile(Descriptor(::open((folder.path() / "renamed").c_str(), O_RDWR)).get()));
    fs::rename(folder.path() / "renamed", file);
    copy.close();
    EXPECT_FALSE(isHeld());
  }
}

TEST_F(FileLock, EndsWithTheLastProcessThatHasIt) {
  for (const bool isInherited : {false, true}) {
    SCOPED_TRACE(isInherited);
    Descriptor mine;
    if (isInherited) mine = open();
    EXPECT_TRUE(!isInherited || tryLockFile(mine.get()));
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = test::startProcess([&] {
      const Descriptor own = isInherited ? Descriptor() : open();
      const char told = isInherited || tryLockFile(own.get()) ? 'y' : 'n';
      return ::write(ready[1], &told, 1) == 1 ? ::pause() : 1;
    });
    char told = 0;
    EXPECT_EQ(::read(ready[0], &told, 1), 1);
    EXPECT_EQ(told, 'y');
    if (isInherited) mine.close();
    EXPECT_TRUE(isHeld());
    ::kill(child, SIGKILL);
    EXPECT_EQ(test::endOf(child), -SIGKILL);
    EXPECT_TRUE(test::comes([&] { return !isHeld(); }));
  }
}

}  // namespace
}  // namespace tarvo::platform

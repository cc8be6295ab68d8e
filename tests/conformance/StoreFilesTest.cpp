#include "platform/persistence/StoreFiles.h"

#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "Kit.h"
#include "support/FreshProcess.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kSize = 4096;

/// A store with its log and index, in a home of its own.
struct Files : testing::Test {
  Files() { fs::create_directory(home); }
  fs::path file(const std::string& side) const { return home / ("s.sqlite" + side); }
  void make(std::uint64_t size = kSize) const {
    for (const char* side : {"", "-wal", "-shm"}) std::ofstream(file(side)) << std::string(size, 'x');
  }
  void replace(const std::string& side) const {
    fs::copy_file(file(side), file("new"));
    fs::rename(file("new"), file(side));
  }
  const test::TempDir folder;
  const fs::path home = folder.path() / "home";
};

TEST_F(Files, TellOfThoseThatWereRemovedReplacedOrCut) {
  for (const char* const side : {"", "-wal", "-shm"}) {
    const bool isIndex = side == std::string("-shm");
    const std::tuple<const char*, std::function<void()>, bool, bool> cases[] = {
        {"left", [] {}, true, true},
        {"removed", [&] { fs::remove(file(side)); }, !isIndex, isIndex},
        {"replaced", [&] { replace(side); }, !isIndex, isIndex},
        {"grown", [&] { fs::resize_file(file(side), 2 * kSize); }, true, true},
        {"cut", [&] { fs::resize_file(file(side), kSize / 2); }, !isIndex, true},
    };
    for (const auto& [what, happens, hasIndex, areNamed] : cases) {
      SCOPED_TRACE(std::string(what) + side);
      make();
      StoreFiles files(file(""));
      files.watch();
      EXPECT_TRUE(files.hasIndex() && files.areNamed());
      happens();
      files.watch();
      EXPECT_EQ(files.hasIndex(), hasIndex);
      EXPECT_EQ(files.areNamed(), areNamed);
      EXPECT_EQ(files.hasIndex(), hasIndex) << "still";
    }
  }
}

TEST_F(Files, AreMissedWithinASecondWhenTheyWereMovedAside) {
  const std::function<void()> cases[] = {[&] { fs::rename(file(""), folder.path() / "aside"); },
                                         [&] { fs::rename(home, folder.path() / "aside home"); },
                                         [&] {
                                           fs::rename(home, folder.path() / "another");
                                           fs::create_directory(home);
                                           make();
                                         }};
  for (const auto& happens : cases) {
    fs::create_directory(home);
    make();
    StoreFiles files(file(""));
    files.watch();
    EXPECT_TRUE(files.areNamed());
    happens();
    // Twice the time, for a busy machine.
    EXPECT_TRUE(test::comes([&] { return !files.areNamed(); }, std::chrono::seconds(2)));
  }
}

TEST_F(Files, AreWatchedOnceTheyHaveCome) {
  StoreFiles files(file(""));
  files.watch();
  EXPECT_TRUE(files.hasIndex() && files.areNamed());
  EXPECT_FALSE(files.watchesLog());
  EXPECT_EQ(files.logSize(), 0U);
  make();
  EXPECT_TRUE(files.areNamed() && files.hasIndex());
  EXPECT_TRUE(files.watchesLog());
  for (const std::uint64_t size : {kSize, 3 * kSize, kSize / 4}) {
    fs::resize_file(file("-wal"), size);
    EXPECT_TRUE(files.areNamed());
    EXPECT_EQ(files.logSize(), size);
  }
  fs::remove(file("-wal"));
  EXPECT_FALSE(files.areNamed());
}

TEST_F(Files, AreNotLostForWantOfADescriptor) {
  make();
  StoreFiles files(file(""));
  {
    const test::FewDescriptors none;
    files.watch();
    EXPECT_TRUE(files.hasIndex() && files.areNamed());
  }
  EXPECT_TRUE(files.areNamed() && files.hasIndex() && files.watchesLog());
  fs::remove(file(""));
  EXPECT_FALSE(files.areNamed());
}

TEST_F(Files, KeepTheLocksThatSqliteHasOnThem) {
  make();
  for (const char* const side : {"", "-wal", "-shm"}) {
    const Descriptor opened(::open(file(side).c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(opened.get(), F_SETLK, &lock), 0);
    {
      StoreFiles files(file(""));
      files.watch();
      EXPECT_TRUE(files.hasIndex() && files.areNamed());
    }
    EXPECT_EQ(test::inFreshProcess([&] { return ::fcntl(opened.get(), F_GETLK, &lock) + (lock.l_type == F_UNLCK); }), 0)
        << side;
  }
}

}  // namespace
}  // namespace tarvo::platform

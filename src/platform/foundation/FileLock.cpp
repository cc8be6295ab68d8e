#include "platform/foundation/FileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// The kernel has no wait for a file lock that ends by itself, so the lock is asked for this often.
constexpr std::chrono::milliseconds kBetweenLooks{20};
constexpr std::size_t kLongestName = 64;

std::atomic<unsigned> forkCount = 0;

}  // namespace

/// The locks that this process holds. A child has copies of their descriptors, which would keep them locked when its
/// parent has gone: it closes them before anything else runs in it.
struct FileLock::Registry {
  Mutex mutex;  ///< held while a lock is taken and while the process forks
  std::vector<FileLock*> held GUARDED_BY(mutex);

  static void beforeFork() TARVO_TSA(no_thread_safety_analysis) { registry().mutex.lock(); }
  static void inParent() TARVO_TSA(no_thread_safety_analysis) { registry().mutex.unlock(); }
  static void inChild() TARVO_TSA(no_thread_safety_analysis) {
    forkCount.fetch_add(1, std::memory_order_relaxed);
    for (FileLock* lock : registry().held) lock->descriptor_.close();
    registry().held.clear();
    registry().mutex.unlock();
  }
};

FileLock::Registry& FileLock::registry() {
  static Registry* registry = new Registry;
  static const int handled = ::pthread_atfork(Registry::beforeFork, Registry::inParent, Registry::inChild);
  static_cast<void>(handled);
  return *registry;
}

unsigned FileLock::forks() {
  registry();
  return forkCount.load(std::memory_order_relaxed);
}

Result<bool> FileLock::tryLock() {
  if (isHeld()) return true;
  {
    MutexLock lock(registry().mutex);
    const int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    Descriptor opened(::open(file_.c_str(), flags, S_IRUSR | S_IWUSR));
    if (!opened.isOpen()) return posixError(errno, file_.native());
    if (!tryLockFile(opened.get())) {
      if (errno == EWOULDBLOCK) return false;
      return posixError(errno, file_.native());
    }
    descriptor_ = std::move(opened);
    registry().held.push_back(this);
  }
  writeHolder();
  return true;
}

Result<bool> FileLock::lock(std::chrono::milliseconds patience, const std::function<bool()>& giveUp) {
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    auto locked = tryLock();
    if (!locked || *locked) return locked;
    if ((giveUp && giveUp()) || std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(kBetweenLooks, patience));
  }
}

void FileLock::unlock() {
  if (!isHeld()) return;
  MutexLock lock(registry().mutex);
  std::erase(registry().held, this);
  descriptor_.close();
}

/// A failure leaves the file empty, and the holder without a name.
void FileLock::writeHolder() const {
  const std::string text = concat(::getpid(), " ", programName(), "\n");
  if (::ftruncate(descriptor_.get(), 0) == 0 && ::pwrite(descriptor_.get(), text.data(), text.size(), 0) < 0)
    static_cast<void>(::ftruncate(descriptor_.get(), 0));
}

std::string FileLock::holder() const {
  std::array<char, kLongestName> bytes{};
  const Descriptor opened(::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  const ssize_t count = opened.isOpen() ? ::pread(opened.get(), bytes.data(), bytes.size(), 0) : 0;
  std::string_view text(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  text = text.substr(0, text.find('\n'));
  int process = 0;
  const auto number = std::from_chars(text.data(), text.data() + text.size(), process);
  text.remove_prefix(static_cast<std::size_t>(number.ptr - text.data()));
  // Anybody may have written the file: nothing of it may end a line of the log.
  if (number.ec != std::errc() || text.size() < 2 || text.front() != ' ' ||
      std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c > '~'; }))
    return "another process";
  return concat(text.substr(1), " (process ", process, ")");
}

}  // namespace tarvo::platform

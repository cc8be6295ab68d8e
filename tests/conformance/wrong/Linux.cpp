// The parts for Linux, each wrong in the ways that TARVO_WRONG names: by the calls of the system that they make, which
// then go wrong, or as a whole.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "platform/device/DeviceSystem.h"
#include "platform/device/linux/SystemFiles.h"
#include "platform/foundation/Descriptor.h"
#include "platform/foundation/System.h"
#include "platform/persistence/StoreFiles.h"
#include "platform/urlsession/Reachability.h"
#include "platform/urlsession/RoutesSystem.h"

namespace {

bool is(const char* fault) {
  static const char* const wrong = std::getenv("TARVO_WRONG");
  return wrong != nullptr && std::strcmp(wrong, fault) == 0;
}

timespec timeNow() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return now;
}
const timespec began = timeNow();

int wrongClock(clockid_t clock, timespec* now) {
  const int done = ::clock_gettime(is("clock of the calendar") ? CLOCK_REALTIME : clock, now);
  static int calls = 0;
  if (is("clock stands")) *now = began;
  if (is("clock of the process")) now->tv_sec -= began.tv_sec, now->tv_nsec -= began.tv_nsec;
  if (is("clock goes back") && ++calls % 100 == 0) now->tv_sec -= 1;
  if (is("clock of seconds")) now->tv_nsec = 0;
  if (is("clock twice as fast")) now->tv_sec += now->tv_sec - began.tv_sec, now->tv_nsec *= 2;
  return done;
}

int wrongEventfd(unsigned, int flags) {
  if (is("wake-up inherited")) flags &= ~EFD_CLOEXEC;
  if (is("wake-up waits")) flags &= ~EFD_NONBLOCK;
  if (is("wake-up forgets one")) flags |= EFD_SEMAPHORE;
  const int made = ::eventfd(is("wake-up from the start") ? 1 : 0, flags);
  return made < 0 && is("wake-up without descriptor") ? 0 : made;
}

ssize_t wrongWrite(int file, const void* bytes, std::size_t size) {
  static std::atomic<int> calls = 0;
  static const pid_t process = ::getpid();
  if (is("wake-up in one process") && process != ::getpid()) return -1;
  if (is("wake-up full") && ++calls > 65'536) ::pause();
  static const auto thread = ::pthread_self();
  if (is("wake-up by one thread") && !::pthread_equal(thread, ::pthread_self())) return -1;
  return ::write(file, bytes, size);
}

long wrongSyscall(long number) {
  thread_local const long once = ::syscall(number);
  if (is("thread number of the process")) return ::getpid();
  return is("first thread before the fork") ? once : ::syscall(number);
}

bool isStarved = false;

int wrongOpen(const char* path, int flags) {
  static int missing = 0;
  if (is("files inherited")) flags &= ~O_CLOEXEC;
  if (is("files opened")) flags &= ~O_PATH;
  if (is("files never looked for again") && missing > 0) return -1;
  const int opened = ::open(path, flags);
  missing += opened < 0 && errno == ENOENT;
  isStarved = isStarved || (opened < 0 && errno == EMFILE);
  return opened;
}

int wrongStatx(int handle, const char* path, int flags, unsigned mask, struct statx* status) {
  static std::uint64_t largest = 0;
  const int done = ::statx(handle, path, flags, mask, status);
  if (is("files removed unnoticed")) status->stx_nlink = 1;
  largest = std::max<std::uint64_t>(largest, status->stx_size);
  if (is("files cut unnoticed")) status->stx_size = largest;
  if (is("files without length")) status->stx_size = 0;
  if (is("files cut are lost") && status->stx_size < largest) status->stx_nlink = 0;
  return isStarved && is("files lost without descriptor") ? -1 : done;
}

int wrongStat(const char* path, struct stat* status) {
  static struct stat first {};
  if (first.st_ino == 0) ::stat(path, &first);
  *status = first;
  return is("files moved unnoticed") ? 0 : ::stat(path, status);
}

}  // namespace

#define clock_gettime wrongClock
#define eventfd wrongEventfd
#define write wrongWrite
#define syscall wrongSyscall
#define open wrongOpen
#define statx(...) wrongStatx(__VA_ARGS__)
#define stat(...) wrongStat(__VA_ARGS__)
#define program_invocation_short_name \
  (is("name with folders") ? ::program_invocation_name : ::program_invocation_short_name)
#define executableFile rightExecutableFile
#define trustedEnvironment rightTrustedEnvironment
#define nameThread rightNameThread
#define fillWithRandom rightFillWithRandom
#define makeTemporaryFile rightMakeTemporaryFile
#define tryLockFile rightTryLockFile
#define readBattery rightReadBattery
#define systemReleaseName rightSystemReleaseName
#define systemReleaseVersion rightSystemReleaseVersion
#define flagsOfRouteTo rightFlagsOfRouteTo
#define flagsOfInterface rightFlagsOfInterface
#include "platform/foundation/linux/System.cpp"
#include "platform/persistence/linux/StoreFiles.cpp"
#undef open
#undef stat
#undef write
#include "platform/device/linux/DeviceSystem.cpp"
#include "platform/urlsession/linux/RoutesSystem.cpp"
#undef executableFile
#undef trustedEnvironment
#undef nameThread
#undef fillWithRandom
#undef makeTemporaryFile
#undef tryLockFile
#undef readBattery
#undef systemReleaseName
#undef systemReleaseVersion
#undef flagsOfRouteTo
#undef flagsOfInterface

namespace tarvo::platform {

std::filesystem::path executableFile() {
  static const char* const started = program_invocation_name;
  return is("file by its link") ? std::filesystem::path(started) : rightExecutableFile();
}

const char* trustedEnvironment(const char* name) {
  const char* const value = rightTrustedEnvironment(name);
  return value == nullptr && is("variable never missing") ? "" : value;
}

void nameThread(const std::string& name) {
  if (!is("name too long")) return rightNameThread(name);
  ::pthread_setname_np(::pthread_self(), name.c_str());
}

bool fillWithRandom(std::span<std::uint8_t> bytes) {
  static std::mt19937 generator(std::random_device{}());
  if (is("random of a fork"))
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(generator());
  return is("random of a fork") || rightFillWithRandom(is("random too short") ? bytes.first(bytes.size() / 2) : bytes);
}

int makeTemporaryFile(std::string& name) {
  const int made = rightMakeTemporaryFile(name);
  if (made >= 0 && is("temporary file for all")) ::fchmod(made, 0644);
  if (made >= 0 && is("temporary file inherited")) ::fcntl(made, F_SETFD, 0);
  if (made < 0 && is("temporary file left")) std::ofstream(std::filesystem::path(name).parent_path() / "left");
  if (made >= 0 && is("temporary file without name")) ::unlink(name.c_str());
  return made;
}

bool tryLockFile(int descriptor) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  if (is("lock of the process")) return ::fcntl(descriptor, F_SETLK, &whole) == 0;
  if (is("lock for writers")) return ::fcntl(descriptor, F_OFD_SETLK, &whole) == 0;
  if (is("lock that waits")) return ::flock(descriptor, LOCK_EX) == 0;
  if (is("lock that is shared")) return ::flock(descriptor, LOCK_SH | LOCK_NB) == 0;
  if (is("lock that stays") && ::fork() == 0) ::sleep(6), ::_exit(0);
  return rightTryLockFile(descriptor);
}

std::optional<BatteryReading> readBattery() {
  if (is("battery in percent")) return BatteryReading{UIDeviceBatteryState::full, 80};
  return rightReadBattery();
}

std::string systemReleaseName() { return is("release without name") ? "" : rightSystemReleaseName(); }
std::string systemReleaseVersion() { return rightSystemReleaseVersion() + (is("release of two lines") ? "\n" : ""); }

std::uint32_t flagsOfRouteTo(const sockaddr& address) {
  Address sent(address);
  const Descriptor datagrams = openSocket(AF_INET, SOCK_DGRAM, 0);
  if (is("route by sending")) ::sendto(datagrams.get(), "", 1, 0, sent.get(), sent.length());
  if (is("route to all")) return kSCNetworkReachabilityFlagsReachable;
  const std::uint32_t flags = rightFlagsOfRouteTo(address);
  return is("route to others alone") ? flags & ~kSCNetworkReachabilityFlagsIsLocalAddress : flags;
}

std::uint32_t flagsOfInterface(unsigned index) {
  if (is("socket left open")) ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  return is("interface always up") ? kSCNetworkReachabilityFlagsReachable : rightFlagsOfInterface(index);
}

}  // namespace tarvo::platform

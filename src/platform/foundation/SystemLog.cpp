#include <tarvo/platform/SystemLog.h>

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"

namespace tarvo::platform {
namespace {

struct SinkSlot {
  Mutex mutex;
  std::shared_ptr<const SystemLogSink> sink GUARDED_BY(mutex);
};

SinkSlot& slot() {
  static SinkSlot* slot = new SinkSlot;
  return *slot;
}

// The console shows the machine's own time, whatever clock is installed: it tells when the line was written.
std::string consolePrefix() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char prefix[128];
  std::snprintf(prefix, sizeof prefix, "%s.%03ld %s[%d:%ld] ", stamp, now.tv_nsec / 1000000, programName(),
                static_cast<int>(getpid()), static_cast<long>(threadNumber()));
  return prefix;
}

}  // namespace

void setSystemLogSink(SystemLogSink sink) {
  auto next = sink ? std::make_shared<const SystemLogSink>(std::move(sink)) : nullptr;
  // The one replaced is code of the host and goes after the lock.
  MutexLock lock(slot().mutex);
  slot().sink.swap(next);
}

void NSLog(std::string_view message) {
  if (message.empty()) return;
  std::shared_ptr<const SystemLogSink> sink;
  {
    MutexLock lock(slot().mutex);
    sink = slot().sink;
  }
  if (sink) {
    try {
      (*sink)(message);
    } catch (...) {
      setSystemLogSink({});  // or it would be asked to write of its own fault
      hostThrew("the system log's sink");
    }
    return;
  }
  std::string line = consolePrefix();
  line.append(message);
  line.push_back('\n');
  // One stdio call holds the stream's lock for the whole line.
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace tarvo::platform

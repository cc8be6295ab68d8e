#include "unit/Loop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>
#include <vector>

#include <tarvo/platform/MainQueue.h>

namespace tarvo::unit {
namespace {

using platform::MainQueue;
using platform::Seconds;

/// Thirty thousand years, whose microseconds have room.
constexpr Seconds kForever{1e12};

void check(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

/// An event source with its work.
struct Source {
  explicit Source(Loop::Work toDo) : work(std::make_shared<const Loop::Work>(std::move(toDo))) {}
  ~Source() { sd_event_source_disable_unref(handle); }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  /// The work may destroy its source.
  void run() const {
    const auto kept = work;
    (*kept)();
  }

  const std::shared_ptr<const Loop::Work> work;
  sd_event_source* handle = nullptr;
};

int onDescriptor(sd_event_source*, int, std::uint32_t, void* source) {
  static_cast<const Source*>(source)->run();
  return 0;
}

int onTime(sd_event_source*, std::uint64_t, void* source) {
  static_cast<const Source*>(source)->run();
  return 0;
}

int onSignal(sd_event_source*, const signalfd_siginfo*, void* source) {
  static_cast<const Source*>(source)->run();
  return 0;
}

class DescriptorWatch final : public Loop::Watch {
 public:
  DescriptorWatch(sd_event* event, int descriptor, Loop::Work work) : source_(std::move(work)) {
    check(sd_event_add_io(event, &source_.handle, descriptor, EPOLLIN, onDescriptor, &source_), "a descriptor");
  }
  void waitFor(bool reading, bool writing) override {
    sd_event_source_set_io_events(source_.handle, (reading ? EPOLLIN : 0U) | (writing ? EPOLLOUT : 0U));
  }

 private:
  Source source_;
};

class EventTimer final : public Loop::Timer {
 public:
  EventTimer(sd_event* event, Loop::Work work) : source_(std::move(work)) {
    check(sd_event_add_time(event, &source_.handle, CLOCK_BOOTTIME, std::numeric_limits<std::uint64_t>::max(), 0,
                            onTime, &source_),
          "a timer");
    disarm();
  }
  void arm(Seconds span) override {
    const auto microseconds = [](Seconds time) {
      return static_cast<std::uint64_t>(std::min(time, kForever).count() * 1e6);
    };
    sd_event_source_set_time_accuracy(source_.handle, microseconds(span / 10) + 1);
    sd_event_source_set_time_relative(source_.handle, microseconds(span));
    sd_event_source_set_enabled(source_.handle, SD_EVENT_ONESHOT);
  }
  void disarm() override { sd_event_source_set_enabled(source_.handle, SD_EVENT_OFF); }
  bool isArmed() const override {
    int enabled = SD_EVENT_OFF;
    sd_event_source_get_enabled(source_.handle, &enabled);
    return enabled != SD_EVENT_OFF;
  }

 private:
  Source source_;
};

sigset_t setOf(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  return set;
}

}  // namespace

struct Loop::State {
  State() { check(sd_event_new(&event), "the event loop"); }
  ~State() {
    sources.clear();
    clockWatch.reset();
    if (clock >= 0) ::close(clock);
    sd_event_unref(event);
  }

  /// A timer that the kernel ends when the clock is set, and that is due in no lifetime.
  void watchClock() const {
    itimerspec never = {};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    ::timerfd_settime(clock, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
  }

  sd_event* event = nullptr;
  std::vector<std::unique_ptr<Source>> sources;
  int clock = -1;
  std::unique_ptr<Watch> clockWatch;
};

Loop::Loop() : state_(std::make_unique<State>()) {
  auto& main = state_->sources.emplace_back(std::make_unique<Source>([] { MainQueue::main().runPending(); }));
  check(sd_event_add_io(state_->event, &main->handle, MainQueue::main().fileDescriptor(), EPOLLIN, unit::onDescriptor,
                        main.get()),
        "the main queue");
}

Loop::~Loop() = default;

std::unique_ptr<Loop::Watch> Loop::watch(int descriptor, Work ready) {
  return std::make_unique<DescriptorWatch>(state_->event, descriptor, std::move(ready));
}

std::unique_ptr<Loop::Timer> Loop::timer(Work due) {
  return std::make_unique<EventTimer>(state_->event, std::move(due));
}

void Loop::onSignals(std::initializer_list<int> signals, Work work) {
  const sigset_t set = setOf(signals);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  for (const int signal : signals) {
    auto& source = state_->sources.emplace_back(std::make_unique<Source>(work));
    check(sd_event_add_signal(state_->event, &source->handle, signal, onSignal, source.get()), "a signal");
  }
}

void Loop::endOnSignals(std::initializer_list<int> signals) {
  const sigset_t set = setOf(signals);
  for (const int signal : signals) ::signal(signal, SIG_DFL);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void Loop::onClockSet(Work work) {
  state_->clock = ::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  check(state_->clock < 0 ? -errno : 0, "a timer");
  state_->watchClock();
  state_->clockWatch = watch(state_->clock, [this, work = std::move(work)] {
    std::uint64_t expired = 0;
    if (::read(state_->clock, &expired, sizeof expired) >= 0 || errno != ECANCELED) return;
    state_->watchClock();
    work();
  });
}

void Loop::post(Work work) const { MainQueue::main().async(whileAlive(std::move(work))); }

std::function<void(Loop::Work)> Loop::poster() const {
  return [alive = std::weak_ptr<bool>(alive_)](Work work) {
    MainQueue::main().async([alive, work = std::move(work)] {
      if (!alive.expired()) work();
    });
  };
}

Loop::Work Loop::whileAlive(Work work) const {
  return [alive = std::weak_ptr<bool>(alive_), work = std::move(work)] {
    if (!alive.expired()) work();
  };
}

int Loop::run() {
  const int status = sd_event_loop(state_->event);
  check(status, "the event loop");
  return status;
}

void Loop::end(int status) { sd_event_exit(state_->event, status); }

}  // namespace tarvo::unit

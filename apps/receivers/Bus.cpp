#ifdef TARVO_WITH_SYSTEMD

#include "Bus.h"

#include <poll.h>

#include <algorithm>
#include <cstdint>
#include <system_error>
#include <utility>

namespace tarvo::receivers {

BusLoop::BusLoop(const char* service, const char* threadName, Client& client)
    : service_(service), client_(client), thread_(startThread(threadName, [this] { run(); })) {}

BusLoop::~BusLoop() {
  ending_ = true;
  want(false);
  thread_.join();
}

void BusLoop::want(bool wanted) {
  wanted_ = wanted;
  wake_.give();
}

void BusLoop::giveUp(bool refused, std::string why) {
  if (!failure_) failure_ = {refused, std::move(why)};
}

void BusLoop::limit(std::optional<std::chrono::seconds> span) {
  limit_.reset();
  if (span) limit_ = Time::now() + *span;
}

void BusLoop::run() {
  for (bool working = false;;) {
    if (working && !wanted_) {
      client_.closing(bus_.get());
      endConnection();
      nextTry_.reset();
      pause_ = kShortestPause;
    }
    working = wanted_;
    if (ending_ && !working) return;
    if (working && !bus_ && (!nextTry_ || Time::now() >= *nextTry_)) open();
    if (bus_ && !failure_) process();
    if (bus_ && !failure_ && limit_ && Time::now() >= *limit_) {
      limit_.reset();
      client_.timeUp();
    }
    if (failure_) {
      endConnection();
      nextTry_ = Time::now() + pause_;
      client_.failed(failure_->refused, failure_->why);
      pause_ = std::min(pause_ * 2, kLongestPause);
      failure_.reset();
    }
    wait();
  }
}

void BusLoop::open() {
  sd_bus* bus = nullptr;
  if (const int status = sd_bus_open_system(&bus); status < 0)
    return giveUp(false, "no system bus: " + std::generic_category().message(-status));
  bus_.reset(bus);
  const std::string rule =
      std::string("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") + service_ + "'";
  sd_bus_add_match_async(bus, nullptr, rule.c_str(), handle<&BusLoop::onOwner, BusLoop>, nullptr, this);
  client_.opened(bus);
}

void BusLoop::endConnection() {
  bus_.reset();
  limit_.reset();
}

void BusLoop::onOwner(sd_bus_message* message) {
  const char *name = "", *before = "", *now = "";
  if (sd_bus_message_read(message, "sss", &name, &before, &now) < 0) return;
  if (*before != '\0') return giveUp(false, std::string(service_) + " has left the bus");
  client_.appeared();
}

void BusLoop::process() {
  int status = 0;
  while (!failure_ && wanted_ && (status = sd_bus_process(bus_.get(), nullptr)) > 0) continue;
  if (status < 0) giveUp(false, "the system bus is gone: " + std::generic_category().message(-status));
}

void BusLoop::wait() {
  pollfd watched[] = {{wake_.descriptor(), POLLIN, 0}, {-1, 0, 0}};
  std::optional<Time::time_point> until = bus_ ? limit_ : nextTry_;
  if (bus_) {
    watched[1] = {sd_bus_get_fd(bus_.get()), static_cast<short>(std::max(sd_bus_get_events(bus_.get()), 0)), 0};
    std::uint64_t microseconds = UINT64_MAX;
    sd_bus_get_timeout(bus_.get(), &microseconds);  // a moment of the monotonic clock, which steady_clock reads
    if (microseconds < INT64_MAX / 1000) {
      const Time::time_point due{std::chrono::microseconds(microseconds)};
      until = until ? std::min(*until, due) : due;
    }
  }
  timespec span{};
  if (until) {
    const auto left = std::max(*until - Time::now(), Time::duration::zero());
    const auto whole = std::chrono::floor<std::chrono::seconds>(left);
    span = {whole.count(), (left - whole).count()};
  }
  if (::ppoll(watched, 2, until ? &span : nullptr, nullptr) > 0 && watched[0].revents != 0) wake_.take();
}

std::optional<std::string> errorOf(sd_bus_message* answer) {
  const sd_bus_error* error = sd_bus_message_get_error(answer);
  if (!error) return std::nullopt;
  return error->message && *error->message ? error->message : error->name;
}

std::map<std::string, double> numbersOf(sd_bus_message* answer) {
  std::map<std::string, double> numbers;
  const auto readAs = [&]<class Number>(const char* name, char type, Number number) {
    if (sd_bus_message_read_basic(answer, type, &number) > 0) numbers[name] = static_cast<double>(number);
  };
  if (sd_bus_message_enter_container(answer, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) return numbers;
  while (sd_bus_message_enter_container(answer, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
    const char *name = "", *content = "";
    sd_bus_message_read(answer, "s", &name);
    sd_bus_message_peek_type(answer, nullptr, &content);
    const std::string type = content;
    if (type == "d" || type == "u" || type == "b" || type == "(tt)") {
      sd_bus_message_enter_container(answer, SD_BUS_TYPE_VARIANT, content);
      if (type == "d") readAs(name, 'd', 0.0);
      if (type == "u") readAs(name, 'u', std::uint32_t{0});
      if (type == "b") readAs(name, 'b', int{0});
      std::uint64_t seconds = 0, microseconds = 0;
      if (type == "(tt)" && sd_bus_message_read(answer, "(tt)", &seconds, &microseconds) > 0)
        numbers[name] = static_cast<double>(seconds) + static_cast<double>(microseconds) / 1e6;
      sd_bus_message_exit_container(answer);
    } else {
      sd_bus_message_skip(answer, "v");
    }
    sd_bus_message_exit_container(answer);
  }
  return numbers;
}

}  // namespace tarvo::receivers

#endif

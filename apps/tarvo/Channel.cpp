#include "Channel.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>

#include <tarvo/LocationManager.h>

#include "sandbox/live/Guard.h"

namespace tarvo::cli {
namespace {

using Json = nlohmann::json;

constexpr double kPause = 1, kFirstPause = 0.1;
/// The sandbox says something every two seconds.
constexpr time_t kSilence = 10, kConnect = 2;
constexpr int kHealthEvery = 3;
/// A host that is told more than this while the sandbox is away forgets the oldest.
constexpr std::size_t kMostTold = 1000;
/// Of an event that never ends.
constexpr std::size_t kLargestEvent = 1 << 20;

}  // namespace

std::optional<std::string> Channel::originOf(const std::string& url) {
  const std::size_t scheme = url.starts_with("https://") ? 8 : url.starts_with("http://") ? 7 : 0;
  const std::string origin = url.substr(0, url.find_first_of("/?#", scheme));
  if (scheme == 0 || origin.size() == scheme) return std::nullopt;
  const std::string_view host = std::string_view(origin).substr(scheme);
  const std::string_view name =
      host.starts_with('[') ? host.substr(1, host.find(']') - 1) : host.substr(0, host.find(':'));
  if (scheme == 7 && !sandbox::live::isLoopback(name)) return std::nullopt;
  return origin;
}

Channel::Channel(Host host, Tarvo tarvo)
    : host_(std::move(host)),
      tarvo_(std::move(tarvo)),
      listener_([this] { listen(); }),
      reporter_([this] { report(); }) {}

Channel::~Channel() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    if (listening_ != nullptr) listening_->stop();
    changed_.notify_all();
  }
  listener_.join();
  reporter_.join();
}

void Channel::told(std::string what) {
  const std::lock_guard lock(mutex_);
  told_.push_back(std::move(what));
  if (told_.size() > kMostTold) told_.pop_front();
}

void Channel::toldPositions(std::size_t count) {
  const std::lock_guard lock(mutex_);
  positions_ += count;
}

bool Channel::waitForEnd(double seconds) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return ended_; });
}

std::unique_ptr<httplib::Client> Channel::client() const {
  auto client = std::make_unique<httplib::Client>(host_.origin);
  client->set_basic_auth(host_.apiKey, host_.apiSecret);
  client->set_connection_timeout(kConnect);
  client->set_read_timeout(kSilence);
  return client;
}

void Channel::listen() {
  while (!host_.mayBePushed() || !LocationManager::userUUID())
    if (waitForEnd(kFirstPause)) return;
  const auto source = client();
  do {
    const std::string user = LocationManager::userUUID().value_or("");
    {
      const std::lock_guard lock(mutex_);
      if (ended_) return;
      listening_ = source.get();
    }
    std::string text;
    httplib::Headers headers;
    if (!lastEvent_.empty()) headers.emplace("Last-Event-ID", lastEvent_);
    source->Get("/channel/" + user, headers, [&](const char* bytes, std::size_t size) {
      text.append(bytes, size);
      for (std::size_t end = text.find("\n\n"); end != text.npos; end = text.find("\n\n")) {
        if (!take(text.substr(0, end))) return false;
        text.erase(0, end + 2);
      }
      // After an erasing there is another user.
      return text.size() <= kLargestEvent && LocationManager::userUUID() == user;
    });
    const std::lock_guard lock(mutex_);
    listening_ = nullptr;
  } while (!waitForEnd(kPause));
}

/// One event of the stream; false when it is time to end.
bool Channel::take(const std::string& event) {
  std::string kind, data;
  for (std::size_t begin = 0; begin < event.size();) {
    const std::size_t end = std::min(event.find('\n', begin), event.size());
    const std::string line = event.substr(begin, end - begin);
    if (line.starts_with("event: ")) kind = line.substr(7);
    if (line.starts_with("data: ")) data = line.substr(6);
    if (line.starts_with("id: ")) lastEvent_ = line.substr(4);
    begin = end + 1;
  }
  if (kind == "push") received(data);
  const std::lock_guard lock(mutex_);
  return !ended_;
}

void Channel::received(const std::string& data) {
  const Json json = Json::parse(data, nullptr, false);
  if (!json.is_object() || !json.contains("push") || !json.contains("payload")) return;
  const auto payload = platform::Value::fromJson(json["payload"].dump());
  const bool handled =
      payload && payload->asDictionary() != nullptr && tarvo_.didReceiveRemoteNotification(*payload->asDictionary());
  post("received", Json{{"push", json["push"]}, {"handled", handled}}.dump());
}

bool Channel::post(const std::string& what, const std::string& json) {
  const auto user = LocationManager::userUUID();
  return user && client()->Post("/channel/" + *user + "/" + what, json, "application/json");
}

void Channel::report() {
  bool ends = false;
  for (int round = 0; !ends; ++round) {
    ends = waitForEnd(kPause);
    std::deque<std::string> texts;
    {
      const std::lock_guard lock(mutex_);
      texts.swap(told_);
      if (positions_ > 0) texts.push_back(std::to_string(std::exchange(positions_, 0)) + " new positions");
    }
    for (const std::string& text : texts)
      if (!post("told", Json{{"what", text}}.dump(-1, ' ', false, Json::error_handler_t::replace))) break;
    if (ends || round % kHealthEvery == 0) post("health", host_.health());
  }
}

}  // namespace tarvo::cli

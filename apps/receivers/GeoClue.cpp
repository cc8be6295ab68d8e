#include "GeoClue.h"

#include <stdexcept>

#ifdef TARVO_WITH_SYSTEMD

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include <tarvo/platform/Clock.h>

#include "Bus.h"
#include "Pace.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;

constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManager = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

constexpr std::uint32_t kExact = 8;  // of GClueAccuracyLevel

/// GeoClue makes the accuracy of a satellite fix up from its dilution of precision: 0 m for a good one.
constexpr double kLeastAccuracyMetres = 5;

/// People answer questions later than programs.
constexpr std::chrono::seconds kOpenAnswer = 10s;
constexpr std::chrono::seconds kSilence = 60s;
constexpr std::size_t kNoBytes = std::numeric_limits<std::size_t>::max();  // the bus bounds what waits
constexpr std::uint64_t kCallMicroseconds = 5'000'000;

/// Absent without a place that can be used.
std::optional<platform::CLLocation> fixOf(const std::map<std::string, double>& location) {
  const auto value = [&](const char* name, double least, double unknown) {
    const auto found = location.find(name);
    return found != location.end() && std::isfinite(found->second) && found->second >= least ? found->second : unknown;
  };
  platform::CLLocation fix;
  fix.coordinate = {value("Latitude", -90, 999), value("Longitude", -180, 999)};
  fix.horizontalAccuracy = value("Accuracy", 0, -1);
  if (fix.coordinate.latitude > 90 || fix.coordinate.longitude > 180 || fix.horizontalAccuracy < 0) return std::nullopt;
  fix.horizontalAccuracy = std::max(fix.horizontalAccuracy, kLeastAccuracyMetres);
  fix.altitude = value("Altitude", -1e9, 0);  // the least double stands for an unknown one
  fix.speed = value("Speed", 0, -1);
  fix.course = value("Heading", 0, -1);
  const double seconds = value("Timestamp", 0, 0);
  fix.timestamp = seconds > 0 ? platform::dateSince1970(seconds) : platform::Clock::current()->now();
  return fix;
}

class GeoClue final : public Receiver, private BusLoop::Client {
 public:
  GeoClue(std::string desktopId, Listener& listener) : desktopId_(std::move(desktopId)), listener_(listener) {}
  void start(double) override { loop_.want(true); }
  void stop() override { loop_.want(false); }

 private:
  template <auto member>
  static constexpr sd_bus_message_handler_t on = handle<member, GeoClue>;

  // The steps of a connection: a client of the manager, its properties, its start; then signals.
  void opened(sd_bus* bus) override {
    bus_ = bus;
    clientPath_.clear();
    step_ = Step::client;
    pace_.emplace(kNoBytes);
    secondsBetweenFixes_ = 1;
    // Answered as soon as GeoClue has an agent of this user.
    call(kManager, kManagerInterface, "GetClient", on<&GeoClue::onClient>, UINT64_MAX);
    loop_.limit(kOpenAnswer);
  }

  void onClient(sd_bus_message* answer) {
    const char* path = "";
    if (const auto error = errorOf(answer)) return giveUp(answer, *error);
    if (sd_bus_message_read(answer, "o", &path) < 0) return loop_.giveUp(false, "GeoClue's answer makes no sense");
    clientPath_ = path;
    step_ = Step::start;
    sd_bus_match_signal_async(bus_, nullptr, kService, path, kClientInterface, "LocationUpdated",
                              on<&GeoClue::onLocationUpdated>, nullptr, this);
    sd_bus_match_signal_async(bus_, nullptr, kService, path, kProperties, "PropertiesChanged",
                              on<&GeoClue::onPropertiesChanged>, nullptr, this);
    set("DesktopId", "s", desktopId_.c_str());
    set("RequestedAccuracyLevel", "u", kExact);
    set("DistanceThreshold", "u", std::uint32_t{0});
    set("TimeThreshold", "u", secondsBetweenFixes_);
    call(path, kClientInterface, "Start", on<&GeoClue::onStarted>, UINT64_MAX);
    loop_.limit(kOpenAnswer);
  }

  void onStarted(sd_bus_message* answer) {
    if (const auto error = errorOf(answer)) return giveUp(answer, *error);
    search("GeoClue: waiting for a fix");
  }

  void onLocationUpdated(sd_bus_message* signal) {
    const char *before = "", *now = "";
    if (sd_bus_message_read(signal, "oo", &before, &now) >= 0)
      getAll(now, kLocationInterface, on<&GeoClue::onLocation>);
  }

  /// A place that is gone again by now is no error.
  void onLocation(sd_bus_message* answer) {
    const auto fix = fixOf(numbersOf(answer));
    if (!fix) return;
    loop_.settled();
    loop_.limit(kSilence);
    tell(Condition::receiving, "GeoClue: fixes come");
    listener_.received({*fix});
    // A fix takes three messages, each of which wakes the thread, so GeoClue is asked for fewer while nothing moves.
    const auto pause = pace_->pauseAfter({*fix}, 0, platform::Clock::current()->monotonic());
    const auto seconds = static_cast<std::uint32_t>(pause.count());
    if (seconds != std::exchange(secondsBetweenFixes_, seconds)) set("TimeThreshold", "u", seconds);
  }

  void onPropertiesChanged(sd_bus_message* signal) {
    // Each fix comes with such a signal too. The value is read anew: anybody on the bus can send a signal.
    if (sd_bus_message_skip(signal, "s") >= 0 && numbersOf(signal).contains("Active"))
      getAll(clientPath_.c_str(), kClientInterface, on<&GeoClue::onClientProperties>);
  }

  void onClientProperties(sd_bus_message* answer) {
    const auto properties = numbersOf(answer);
    const auto active = properties.find("Active");
    if (active == properties.end() || step_ != Step::none) return;
    if (active->second != 0 && told_ == Condition::refused) search("GeoClue: allowed again, waiting for a fix");
    if (active->second != 0 || told_ == Condition::refused) return;
    loop_.limit(std::nullopt);
    tell(Condition::refused, "GeoClue: location was switched off for " + desktopId_ +
                                 ", by the user or the desktop's settings; fixes come when it is switched on again");
  }

  void timeUp() override {
    if (step_ == Step::none) return tell(Condition::searching, "GeoClue: no fix for a minute");
    waited_ = true;
    tell(Condition::refused, step_ == Step::client
                                 ? "GeoClue: no answer; it waits for an agent of user " + std::to_string(::getuid()) +
                                       ", which the shells of most desktops and phones are. Where there is none, run " +
                                       "one as that user, for instance /usr/libexec/geoclue-2.0/demos/agent"
                                 : "GeoClue: no answer; it waits for its question on the screen, whether " +
                                       desktopId_ + " may know the location, to be answered");
  }

  void closing(sd_bus* bus) override {
    // The connection's end would do, but the service need not find out by itself.
    if (bus && !clientPath_.empty())
      sd_bus_call_method_async(bus, nullptr, kService, clientPath_.c_str(), kClientInterface, "Stop", nullptr, nullptr,
                               nullptr);
    tell(Condition::resting, "GeoClue: not needed");
  }

  void failed(bool refused, const std::string& why) override {
    // A GeoClue without agents leaves after a minute and comes back with the next try: no change worth telling.
    tell(refused || waited_ ? Condition::refused : Condition::lost, "GeoClue: " + why + ", it is tried again");
  }

  void giveUp(sd_bus_message* answer, const std::string& error) {
    const bool refused = sd_bus_message_is_method_error(answer, SD_BUS_ERROR_ACCESS_DENIED) > 0;
    waited_ = false;
    loop_.giveUp(refused, refused
                              ? "refused (" + error + "). Location must be on in the settings of the desktop, and " +
                                    "/etc/geoclue/geoclue.conf may have no section [" + desktopId_ +
                                    "] with allowed=false or other users"
                              : error);
  }

  void search(const std::string& line) {
    step_ = Step::none;
    waited_ = false;
    loop_.limit(std::nullopt);
    tell(Condition::searching, line);
  }

  void tell(Condition condition, const std::string& line) {
    if (condition != std::exchange(told_, condition)) listener_.changed(condition, line);
  }

  void call(const char* path, const char* interface, const char* method, sd_bus_message_handler_t answer,
            std::uint64_t microseconds, const char* argument = nullptr) {
    sd_bus_message* message = nullptr;
    int status = sd_bus_message_new_method_call(bus_, &message, kService, path, interface, method);
    if (status >= 0 && argument) status = sd_bus_message_append(message, "s", argument);
    if (status >= 0) status = sd_bus_call_async(bus_, nullptr, message, answer, this, microseconds);
    sd_bus_message_unref(message);
    if (status < 0) loop_.giveUp(false, std::string(method) + " cannot be called: error " + std::to_string(-status));
  }

  void getAll(const char* path, const char* interface, sd_bus_message_handler_t answer) {
    call(path, kProperties, "GetAll", answer, kCallMicroseconds, interface);
  }

  template <class Value>
  void set(const char* property, const char* type, Value value) {
    sd_bus_call_method_async(bus_, nullptr, kService, clientPath_.c_str(), kProperties, "Set", nullptr, nullptr, "ssv",
                             kClientInterface, property, type, value);
  }

  const std::string desktopId_;
  Listener& listener_;
  // Of the loop's thread.
  sd_bus* bus_ = nullptr;
  std::string clientPath_;
  enum class Step { none, client, start } step_ = Step::none;  ///< what GeoClue has not answered yet
  bool waited_ = false;                                        ///< for so long that it was told
  std::optional<Pace> pace_;
  std::uint32_t secondsBetweenFixes_ = 1;
  Condition told_ = Condition::resting;
  BusLoop loop_{kService, "tarvo:geoclue", *this};  // last: it calls the rest
};

}  // namespace

std::unique_ptr<Receiver> openGeoClue(const std::string& desktopId, Listener& listener) {
  if (desktopId.empty()) throw std::invalid_argument("GeoClue needs the desktop id of the program");
  return std::make_unique<GeoClue>(desktopId, listener);
}

}  // namespace tarvo::receivers

#else

namespace tarvo::receivers {

std::unique_ptr<Receiver> openGeoClue(const std::string&, Listener&) {
  throw std::invalid_argument("this program was built without libsystemd, so it cannot ask GeoClue");
}

}  // namespace tarvo::receivers

#endif

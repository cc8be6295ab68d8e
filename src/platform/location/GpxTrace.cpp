#include <charconv>
#include <cmath>
#include <pugixml.hpp>
#include <string_view>

#include <tarvo/platform/GpxReplay.h>

#include "platform/foundation/Text.h"
#include "platform/location/Geodesy.h"

namespace tarvo::platform {
namespace {

constexpr std::uintmax_t kLargestFile = 256u << 20;  // parsed in memory, several times the size of the file
constexpr double kMetresPerHdop = 5;
constexpr double kAssumedAccuracyMetres = 10;

std::string_view localName(const pugi::xml_node& node) {
  const std::string_view name = node.name();
  return name.substr(name.find(':') + 1);  // npos + 1 is 0
}

/// The text inside the white space.
std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

/// A finite number that fills the text.
std::optional<double> number(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

/// Calls `visit` for each child element of that local name.
template <class Visit>
void forEachChild(const pugi::xml_node& parent, std::string_view name, Visit visit) {
  for (const pugi::xml_node& child : parent.children())
    if (localName(child) == name) visit(child);
}

/// What a point says of itself beside its place.
struct PointFields {
  std::optional<Date> time;
  std::optional<double> ele, hdop, speed, course;
};

/// Extensions nest as their makers like; the names do not clash with those of the point itself.
void readFields(const pugi::xml_node& parent, int depth, PointFields& fields) {
  constexpr int kDeepestExtension = 4;
  for (const pugi::xml_node& child : parent.children()) {
    const std::string_view name = localName(child);
    const std::string_view text = child.child_value();
    if (depth == 0 && name == "time")
      fields.time = parseTimestamp(trimmed(text));
    else if (depth == 0 && name == "ele")
      fields.ele = number(text);
    else if (depth == 0 && name == "hdop")
      fields.hdop = number(text);
    else if (name == "speed")
      fields.speed = number(text);
    else if (name == "course")
      fields.course = number(text);
    else if (depth < kDeepestExtension && (depth > 0 || name == "extensions"))
      readFields(child, depth + 1, fields);
  }
}

class TraceReader {
 public:
  void point(const pugi::xml_node& node) {
    ++points;
    const std::optional<double> latitude = number(node.attribute("lat").value());
    const std::optional<double> longitude = number(node.attribute("lon").value());
    if (!latitude || !longitude || std::abs(*latitude) > 90 || std::abs(*longitude) > 180) {
      ++trace.outOfRange;
      return;
    }
    PointFields fields;
    readFields(node, 0, fields);
    if (!fields.time) {
      ++trace.untimed;
      return;
    }
    CLLocation fix;
    fix.coordinate = {*latitude, *longitude};
    fix.timestamp = *fields.time;
    fix.altitude = fields.ele.value_or(0);
    fix.verticalAccuracy = fields.ele ? kAssumedAccuracyMetres : -1;
    const bool graded = fields.hdop && *fields.hdop > 0 && std::isfinite(*fields.hdop * kMetresPerHdop);
    fix.horizontalAccuracy = graded ? *fields.hdop * kMetresPerHdop : kAssumedAccuracyMetres;
    addMotion(fields, fix);
    trace.fixes.push_back(fix);
  }

  GpxTrace trace;
  std::size_t points = 0;

 private:
  void addMotion(const PointFields& fields, CLLocation& fix) {
    GeodesicWay way{0, 0};
    Seconds span{0};
    if (!trace.fixes.empty()) {
      const CLLocation& before = trace.fixes.back();
      way = geodesicWay(before.coordinate, fix.coordinate);
      span = fix.timestamp - before.timestamp;
      if (span < Seconds(0)) ++trace.backwards;
    }
    if (fields.speed && *fields.speed >= 0)
      fix.speed = *fields.speed;
    else if (span > Seconds(0))
      fix.speed = way.metres / span.count();
    if (fields.course && *fields.course >= 0 && *fields.course <= 360)
      fix.course = *fields.course;
    else if (span > Seconds(0) && way.metres > 0 && fix.speed > 0)
      fix.course = way.azimuthDegrees;
  }
};

/// Track points, else route points, else waypoints.
void readPoints(const pugi::xml_node& gpx, TraceReader& reader) {
  const auto take = [&](const pugi::xml_node& node) { reader.point(node); };
  forEachChild(gpx, "trk", [&](const pugi::xml_node& track) {
    forEachChild(track, "trkseg", [&](const pugi::xml_node& segment) { forEachChild(segment, "trkpt", take); });
  });
  if (reader.points == 0)
    forEachChild(gpx, "rte", [&](const pugi::xml_node& route) { forEachChild(route, "rtept", take); });
  if (reader.points == 0) forEachChild(gpx, "wpt", take);
}

}  // namespace

std::optional<GpxTrace> GpxTrace::read(const std::filesystem::path& file, std::string& error) {
  const auto refuse = [&](const std::string& reason) -> std::optional<GpxTrace> {
    error = concat(file.string(), ": ", reason);
    return std::nullopt;
  };
  std::error_code failed;
  const std::uintmax_t size = std::filesystem::file_size(file, failed);
  if (failed) return refuse(concat("cannot be read: ", failed.message()));
  if (size > kLargestFile) return refuse(concat("is larger than ", kLargestFile >> 20, " MiB"));

  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_file(file.c_str());
  if (parsed.status == pugi::status_file_not_found || parsed.status == pugi::status_io_error)
    return refuse("cannot be read");
  if (!parsed) return refuse(concat("is not XML: ", parsed.description(), " at byte ", parsed.offset));
  const pugi::xml_node root = document.document_element();
  if (localName(root) != "gpx") return refuse("is not GPX: its root element is another");

  TraceReader reader;
  readPoints(root, reader);
  if (reader.points == 0) return refuse("holds no point");
  if (reader.trace.fixes.empty())
    return refuse(concat("none of its ", reader.points, " points can be used: ", reader.trace.untimed,
                         " without a time, ", reader.trace.outOfRange, " without a valid place"));
  return std::move(reader.trace);
}

}  // namespace tarvo::platform

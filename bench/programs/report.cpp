// Makes the table of a run and its JSON. usage: bench_report VALUES JSON NAME...
// VALUES holds lines "key value". Of a key's values the one counts that a quarter of them is better than: whatever else
// runs on the machine makes a work slower, never faster. NAMEs are groups of figures, as bench/run takes them.
// Ends with 1 where a goal is missed or a figure has no value.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "programs/Goals.h"
#include "support/Process.h"

namespace {

using namespace tarvo::bench;

using Samples = std::map<std::string, std::vector<double>>;

struct Line {
  const Figure& figure;
  std::optional<double> measured, limit, ratio;
  bool met = false;
};

bool moreIsBetter(const Figure& figure) { return std::string_view(figure.unit).ends_with("/s"); }

std::optional<double> betterQuartile(const Samples& samples, const char* key, bool moreIsBetter) {
  const auto found = key != nullptr ? samples.find(key) : samples.end();
  if (found == samples.end()) return std::nullopt;
  std::vector<double> values = found->second;
  std::sort(values.begin(), values.end());
  if (moreIsBetter) std::reverse(values.begin(), values.end());
  return values[values.size() / 4];
}

Line judge(const Figure& figure, const Samples& samples) {
  const bool more = moreIsBetter(figure);
  Line line{figure, betterQuartile(samples, figure.measured, more), betterQuartile(samples, figure.limit, more)};
  if (line.measured && line.limit && *line.limit != 0) line.ratio = *line.measured / *line.limit;
  if (!line.measured || (figure.limit != nullptr && !line.limit)) return line;
  switch (figure.kind) {
    case Goal::ratioAtLeast:
      line.met = line.ratio && *line.ratio >= figure.goal;
      break;
    case Goal::ratioAtMost:
      line.met = line.ratio && *line.ratio <= figure.goal;
      break;
    case Goal::atLeast:
      line.met = *line.measured >= figure.goal;
      break;
    case Goal::atMost:
      line.met = *line.measured <= figure.goal;
      break;
    case Goal::aboveLimitAtMost:
      line.met = line.limit && *line.measured - *line.limit <= figure.goal;
      break;
    case Goal::none:
      line.met = true;
      break;
  }
  return line;
}

std::string printed(std::optional<double> value) {
  if (!value) return "-";
  char text[32];
  std::snprintf(text, sizeof text, *value >= 1000 ? "%.0f" : *value >= 10 ? "%.1f" : "%.3f", *value);
  return text;
}

std::string goalText(const Figure& figure) {
  const std::string value = printed(figure.goal);
  switch (figure.kind) {
    case Goal::ratioAtLeast:
      return ">= " + value + " x";
    case Goal::ratioAtMost:
      return "<= " + value + " x";
    case Goal::atLeast:
      return ">= " + value;
    case Goal::atMost:
      return "<= " + value;
    case Goal::aboveLimitAtMost:
      return "<= limit + " + value;
    case Goal::none:
      return "";
  }
  return "";
}

const char* verdict(const Line& line) { return line.figure.kind == Goal::none ? "" : line.met ? "ok" : "MISSED"; }

void printTable(const std::vector<Line>& lines) {
  std::printf("%-56s %12s %12s %8s %18s  %s\n", "figure", "measured", "limit", "ratio", "goal", "");
  for (const Line& line : lines)
    std::printf("%-56s %12s %12s %8s %18s  %s\n",
                (std::string(line.figure.title) + " [" + line.figure.unit + "]").c_str(),
                printed(line.measured).c_str(), printed(line.limit).c_str(), printed(line.ratio).c_str(),
                goalText(line.figure).c_str(), verdict(line));
}

std::string jsonNumber(std::optional<double> value) {
  if (!value) return "null";
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", *value);
  return text;
}

std::string jsonSamples(const Samples& samples, const char* key) {
  const auto found = key != nullptr ? samples.find(key) : samples.end();
  std::string out = "[";
  if (found != samples.end())
    for (const double value : found->second) out += (out.size() > 1 ? "," : "") + jsonNumber(value);
  return out + "]";
}

void writeJson(const char* file, const std::vector<Line>& lines, const Samples& samples) {
  std::ofstream out(file);
  out << "[";
  const char* separator = "\n";
  for (const Line& line : lines) {
    const Figure& figure = line.figure;
    out << separator << R"( {"group":")" << figure.group << R"(","figure":")" << figure.title << R"(","unit":")"
        << figure.unit << R"(","measured":)" << jsonNumber(line.measured) << R"(,"limit":)" << jsonNumber(line.limit)
        << R"(,"ratio":)" << jsonNumber(line.ratio) << R"(,"goal":")" << goalText(figure) << R"(","met":)"
        << (figure.kind == Goal::none ? "null"
            : line.met                ? "true"
                                      : "false")
        << R"(,"samples":)" << jsonSamples(samples, figure.measured) << R"(,"limitSamples":)"
        << jsonSamples(samples, figure.limit) << "}";
    separator = ",\n";
  }
  out << "\n]\n";
  if (!out.flush()) fail(std::string("cannot write ") + file);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) fail("usage: bench_report VALUES JSON NAME...");
  Samples samples;
  std::ifstream in(argv[1]);
  std::string key;
  for (double value = 0; in >> key >> value;) samples[key].push_back(value);
  const std::span<char*> groups(argv + 3, static_cast<std::size_t>(argc - 3));
  std::vector<Line> lines;
  for (const Figure& figure : kFigures)
    if (std::any_of(groups.begin(), groups.end(),
                    [&](const char* group) { return figure.group == std::string_view(group); }))
      lines.push_back(judge(figure, samples));
  printTable(lines);
  writeJson(argv[2], lines, samples);
  return std::all_of(lines.begin(), lines.end(), [](const Line& line) { return line.met; }) ? 0 : 1;
}

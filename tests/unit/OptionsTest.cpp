#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <fstream>

#include "support/TempDir.h"
#include "unit/OptionReader.h"

namespace tarvo::unit {
namespace {

/// A command line and a file, the latter with "FILE" in the place of its own name in messages.
struct Options : testing::Test {
  UnitOptions read(const std::string& toml, std::vector<std::string> line) {
    if (toml != kFolder) std::ofstream(file) << toml;
    CLI::App app;
    const OptionReader reader(app);
    line.insert(line.end(), {"--config", toml == kFolder ? folder.path().string() : file});
    std::reverse(line.begin(), line.end());
    app.parse(line);
    return reader.read();
  }
  std::string error(const std::string& toml, const std::vector<std::string>& line) {
    try {
      read(toml, line);
      return "";
    } catch (const OptionError& thrown) {
      const std::string what = thrown.what();
      return what.starts_with(file) ? "FILE" + what.substr(file.size()) : what;
    }
  }

  static constexpr const char* kFolder = "a folder";
  const test::TempDir folder;
  const std::string file = (folder.path() / "tarvo.toml").string();
};

TEST_F(Options, TellFileLineAndKeyOfWhatCannotBeUsed) {
  const struct {
    const char *toml, *error;
  } cases[] = {
      {"\nnonsense = 1", "FILE:2: nonsense: no such key"},
      {"config = 'x'", "FILE:1: config: no such key"},
      {"no-confirmed = true", "FILE:1: no-confirmed: no such key"},
      {"[run]\nmode = 4", "FILE:1: run: no such key"},
      {"backend = 3", "FILE:1: backend: has to be a text"},
      {"mode = '8'", "FILE:1: mode: has to be a whole number"},
      {"mode = 8.5", "FILE:1: mode: has to be a whole number"},
      {"confirmed = 'yes'", "FILE:1: confirmed: has to be true or false"},
      {"gpsd = false", "FILE:1: gpsd: has to be a text, or true"},
      {"mode = 5", "FILE:1: mode: 5 not in {0,4,8,12}"},
      {"position-age = -3", "FILE:1: position-age: -3 is neither 0 nor above"},
      {"store-bytes = '-3MB'", "FILE:1: store-bytes: -3MB is neither 0 nor above"},
      {"log-age = '3 weeks'", "FILE:1: log-age: weeks unit not recognized. Allowed values: {d,h,min,s}"},
      {"geoclue = true\nnmea = '-'", "one of gpsd, nmea and geoclue can be the receiver"},
  };
  for (const auto& [toml, expected] : cases) EXPECT_EQ(error(toml, {"--mode", "4"}), expected) << toml;
  EXPECT_EQ(error(kFolder, {}), folder.path().string() + ": it is a folder");
  EXPECT_NE(error("a = = 1", {}).find("FILE:1: "), std::string::npos);
  EXPECT_NE(error("backend = 'https://b.example/api'\nclient-id = 'c'", {}).find("--api-key"), std::string::npos);
}

TEST_F(Options, OfTheCommandLineGoBeforeTheEnvironmentAndThatBeforeTheFile) {
  const std::string toml =
      "gpsd = 'far:1'\nhome = '/file'\nconfirmed = false\nposition-age = '2d'\nstore-bytes = '5MB'\nmode = 4";
  std::ofstream(folder.path() / "api-secret") << "s";
  ::setenv("STATE_DIRECTORY", "/state:/other", 1);
  ::setenv("CREDENTIALS_DIRECTORY", folder.path().c_str(), 1);

  const UnitOptions fromFile = read(toml, {});
  EXPECT_EQ(fromFile.gpsd, "far:1");
  EXPECT_EQ(fromFile.home, "/state");
  EXPECT_EQ(fromFile.apiSecretFile, folder.path() / "api-secret");
  EXPECT_FALSE(fromFile.delivery.confirmed);
  EXPECT_TRUE(fromFile.delivery.dropsProtocolBreaks);
  EXPECT_EQ(fromFile.storage.positionAge, platform::Seconds(2 * 86400));
  EXPECT_EQ(fromFile.storage.storeBytes, 5'000'000U);

  const UnitOptions given =
      read(toml, {"--nmea", "/dev/ttyS9", "--home", "/line", "--confirmed", "--position-age", "90", "--verbose"});
  EXPECT_EQ(std::pair(given.gpsd, given.nmea),
            std::pair(std::optional<std::string>(), std::optional<std::string>("/dev/ttyS9")));
  EXPECT_EQ(given.home, "/line");
  EXPECT_TRUE(given.delivery.confirmed);
  EXPECT_EQ(given.storage.positionAge, platform::Seconds(90));
  EXPECT_EQ(needRestart(fromFile, given), (std::vector<std::string>{"gpsd", "home", "nmea"}));

  std::ofstream(folder.path() / "api-secret") << "-";
  EXPECT_EQ(read(toml, {}).apiSecretFile, "");
}

}  // namespace
}  // namespace tarvo::unit

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Date.h>

namespace tarvo::receivers {

/// Reads fixes out of NMEA 0183 as it comes from a line: in any parts, between garbage, with any line ends or none.
///
/// It reads RMC, GGA and GST of any talker and joins what has the same time of day. A fix is given once RMC and GGA of
/// its moment are there (and GST, from a receiver that sends it), else when the next moment begins or nothing comes.
/// Void RMC and a GGA of quality 0 are no fix, whatever the other says. A GGA without RMC has the day of the last RMC,
/// or the one after or before it when midnight lies between.
///
/// Two figures are the year of 1980 to 2079. The accuracy is GST's standard errors in both directions together, else
/// Accuracy.h's.
///
/// A sentence ends with its checksum, or without one at a line end; once the stream has had a checksum, sentences
/// without are refused, for they have been cut off. The standard's 82 characters may be 256.
///
/// Threads: one at a time. Errors: none; what is no sentence is counted.
class NmeaReader {
 public:
  struct Statistics {
    std::uint64_t sentences = 0;  ///< with a right checksum, of whatever kind
    std::uint64_t refused = 0;    ///< cut off, too long, with a wrong checksum or characters that no sentence has
    std::uint64_t moments = 0;    ///< times of day that RMC or GGA told, with a fix or without
  };

  /// Appends the fixes that `bytes` complete.
  void take(std::string_view bytes, std::vector<platform::CLLocation>& fixes);
  /// Nothing comes for a while: appends the fix that waits for its next sentence, which then comes too late for it.
  void pause(std::vector<platform::CLLocation>& fixes);
  /// Nothing comes any more: appends the fix that waited for its next sentence.
  void finish(std::vector<platform::CLLocation>& fixes);

  Statistics statistics() const { return statistics_; }

 private:
  using Milliseconds = std::chrono::milliseconds;
  struct Rmc {
    bool isValid = false;
    std::optional<platform::CLLocationCoordinate2D> coordinate;
    std::optional<double> knots, course;
    std::optional<std::chrono::sys_days> day;
  };
  struct Gga {
    bool isValid = false;
    std::optional<platform::CLLocationCoordinate2D> coordinate;
    std::optional<double> hdop, altitude;
  };
  struct Gst {
    double horizontal = 0, vertical = 0;  ///< metres; 0: not told
  };
  /// What belongs to one time of day.
  struct Moment {
    Milliseconds time{-1};
    std::optional<Rmc> rmc;
    std::optional<Gga> gga;
    std::optional<Gst> gst;
    bool isGiven = false;
  };
  using Fixes = std::vector<platform::CLLocation>;

  void endSentence(Fixes& fixes);
  void refuse();
  void begin(Milliseconds time, Fixes& fixes);
  void give(Fixes& fixes);
  std::optional<platform::CLLocation> fix();

  std::string sentence_;  ///< behind its "$"
  bool isInside_ = false, hasChecksums_ = false;
  Moment moment_;
  bool expectsGst_ = false;
  std::optional<std::chrono::sys_days> day_;  ///< of the latest moment whose day is known, which was at `time_`
  Milliseconds time_{0};
  Statistics statistics_;
};

/// The time that a receiver means which counts weeks modulo 1024; Nmea.h says how it is found.
platform::Date withoutRollover(platform::Date told, platform::Date now, platform::Date built);

}  // namespace tarvo::receivers

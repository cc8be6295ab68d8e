#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Habits.h"
#include "Receiver.h"

namespace tarvo::simulation {

enum class Profile { Drive, Bike, Walk, Outing, Day, Week };

/// What is to be invented. Coordinates are taken to six decimals, `rate` to three.
struct Request {
  Coordinate from, to;  ///< home and work of a person
  Profile profile = Profile::Drive;
  std::uint64_t seed = 0;
  int days = 1;                        ///< of a person, at most 31
  std::int64_t start = 1715671800000;  ///< ms since 1970, a whole second; a person's days begin at the midnight before
  double rate = 1;                     ///< fixes a second while moving, 0.01 to 10
};

/// What really happened, in the order of time. Times are ms since 1970; places are numbers in `places`.
struct Truth {
  struct Stay {
    std::size_t place = 0;
    std::int64_t from = 0, to = 0;
    std::size_t fixes = 0;  ///< that the receiver gave meanwhile
  };
  struct Trip {
    std::size_t from = 0, to = 0;
    Mode mode = Mode::Drive;
    std::int64_t start = 0, arrival = 0;
    double metres = 0;
    std::size_t fixes = 0;
    std::vector<std::pair<std::int64_t, std::int64_t>> tunnels;
  };
  std::vector<Place> places;
  std::vector<Stay> stays;
  std::vector<Trip> trips;
};

struct Simulation {
  Request request;  ///< as it was taken
  std::vector<Fix> fixes;
  Truth truth;
};

/// The same request gives the same simulation on every machine. Throws std::invalid_argument for one that cannot be
/// met; its text names the option of the program.
Simulation simulate(Request request);

/// The command line that asks for it again, without files.
std::string commandOf(const Request& request);

/// GPX 1.0, whose points have a course and a speed; hdop is a fifth of the accuracy, as a replay reads it.
void writeGpx(std::ostream& out, const Simulation& simulation);

/// NMEA 0183: RMC, GGA and GST of each fix, times to hundredths; hdop as in the GPX, and GST's errors from the
/// accuracy. Its first line is no sentence, and names the command.
void writeNmea(std::ostream& out, const Simulation& simulation);

/// JSON; times are seconds since 1970.
void writeTruth(std::ostream& out, const Simulation& simulation);

}  // namespace tarvo::simulation

#pragma once

#include <cstddef>

/// The figures of the derivation, in metres and seconds unless said otherwise; docs/sandbox.md tells where each comes
/// from.
namespace tarvo::sandbox::derive {

// Positions
inline constexpr double kWorstAccuracy = 200;           ///< what is less accurate is not looked at
inline constexpr double kUnknownAccuracy = 15;          ///< taken for one without
inline constexpr double kMostTolerance = 50;            ///< of an accuracy, where two positions are compared
inline constexpr double kHighestSpeed = 90;             ///< m/s
inline constexpr std::size_t kWitnesses = 3;            ///< so many positions in a row make a leap believable,
inline constexpr double kWitnessTime = 60;              ///< over so long
inline constexpr double kLatestTime = 253'402'300'799;  ///< the end of 9999; times are not before 1970 either

// Stops
inline constexpr double kStayRadius = 100, kStayTime = 300;
inline constexpr double kThinning = 10;      ///< positions closer in time tell nothing new about a stay
inline constexpr double kLeave = 180;        ///< away for so long is gone,
inline constexpr double kSurelyLeft = 400;   ///< so far away too, once a second position says so
inline constexpr double kSilence = 20 * 60;  ///< a pause that needs an explanation
inline constexpr double kNearAfterSilence = 300;
inline constexpr double kLongSilence = 2 * 3600;     ///< no trip goes on over it
inline constexpr double kLongestStay = 14 * 86'400;  ///< without a position in all that time
inline constexpr double kSlowest = 1;                ///< m/s over a silence in which the host was under way
inline constexpr double kDrivenUnseen = 10'000;  ///< so far it can come between a stay and the first position after it,
inline constexpr double kWalkUnseen = 200;       ///< the first of them on foot
inline constexpr double kPaceUnseen = 1.4, kSpeedUnseen = 8;  ///< m/s, on foot and beyond
inline constexpr double kFirstAnnounced = 1800;  ///< a stay is told of again after so long, then twice as long

// Trips
inline constexpr double kLeastExtent = 250, kLeastDuration = 60;  ///< less is no trip
inline constexpr double kRouteTolerance = 10;
inline constexpr double kSpikeLength = 100;  ///< out and back at once by so much, at so many times the usual speed of
inline constexpr double kSpikeSpeed = 4;     ///< the trip, is no part of it

// Places
inline constexpr double kProfileDays = 90;  ///< so far back stays and habits count
inline constexpr double kNeighbourhood = 150;
inline constexpr double kVisitWeight = 1, kHoursWeight = 4, kCoreWeight = 3;  ///< visits + 4 * hours >= 3 make a place
inline constexpr double kZoneMargin = 50;
inline constexpr double kNoticeableMove = 40;  ///< of a centre, or of a radius
inline constexpr double kSameVisit = 15 * 60;  ///< who is back so soon has not come anew
inline constexpr double kHomeHours = 3, kWorkHours = 4, kWorkDays = 2;

// Predictions
inline constexpr double kSmoothing = 0.5;     ///< days on which nothing is known to happen
inline constexpr double kOtherWeekday = 0.5;  ///< weight of a working day for another working day
inline constexpr double kOtherHabit = 0.25;   ///< of a visit on another kind of day, or at other hours
inline constexpr double kSameHours = 3 * 3600;
inline constexpr double kHalfLifeDays = 28;  ///< of the weight of a day
inline constexpr int kDaysAhead = 7;

}  // namespace tarvo::sandbox::derive

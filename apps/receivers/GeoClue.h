#pragma once

#include <memory>
#include <string>

#include "Receiver.h"

namespace tarvo::receivers {

/// Fixes of GeoClue, the location service of Linux desktops and phones (org.freedesktop.GeoClue2 on the system bus).
///
/// `desktopId` is the name under which GeoClue's agent or its configuration allows the program: that of a desktop file
/// without ".desktop". The best accuracy is asked for always, one fix a second and one in five while nothing moves.
/// GeoClue is left entirely while nobody needs fixes, so it can rest too.
///
/// refused: the user, the agent or the configuration says no, or the answer is still open after ten seconds (a question
/// on the screen, or no agent of the program's user there to answer); the line names what would allow it. An open
/// answer is waited for, and comes into force whenever it comes; a no is asked again as Receiver says, except for what
/// was switched off while fixes came, which GeoClue itself switches on again. searching: allowed, and no fix yet or
/// none for a minute.
///
/// Fixes keep GeoClue's time, which for the first one after a start may lie long back: GeoClue tells the last place it
/// knew. A fix without a time has that of the installed clock. An accuracy below 5 m is given as 5 m, since GeoClue
/// claims 0 m for any good satellite fix. It knows no accuracy of an altitude, so a known altitude comes with a
/// vertical accuracy of -1.
///
/// Errors: std::invalid_argument where the program was built without libsystemd or `desktopId` is empty;
/// std::system_error where the system has no thread for it.
std::unique_ptr<Receiver> openGeoClue(const std::string& desktopId, Listener& listener);

}  // namespace tarvo::receivers

/** @file
 * What stands behind the facade, for bindings to languages that show it, and for hosts with needs of their own: the
 * engine's operations as tarvo/LocationManager.h tells them, and the parts of a trip. The rules are those of tarvo.h.
 */
#ifndef TARVO_C_ENGINE_H
#define TARVO_C_ENGINE_H

#include <tarvo-c/tarvo.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Collection ---- */

/** Starts collection without setting a mode, in modes from 0: standard updates, and the last position once more. From
 * mode 8 goes on with the log uploads of an earlier process. */
TARVO_C_API tarvo_result tarvo_engine_start(tarvo_sdk* sdk);
/** Takes no more fixes; regions and significant changes stay on. */
TARVO_C_API tarvo_result tarvo_engine_stop(tarvo_sdk* sdk);
/** As on the screen: standard updates each 20 m. Queued. */
TARVO_C_API tarvo_result tarvo_engine_foreground(tarvo_sdk* sdk);
/** Stores the newest fix again or, without the permission "always", the last position, as for a push message, and
 * starts an upload pass. TARVO_TOO_EARLY without any. */
TARVO_C_API tarvo_result tarvo_engine_refresh(tarvo_sdk* sdk);
/** Asks for the permission that a mode needs, unless it is given, and waits for nothing. `before` (may be NULL) is what
 * was given before. */
TARVO_C_API tarvo_result tarvo_engine_ask(tarvo_sdk* sdk, int64_t mode, tarvo_permission* before);
/** Shows the alert that leads to the settings. */
TARVO_C_API tarvo_result tarvo_engine_ask_again(tarvo_sdk* sdk);

/* ---- What is stored, in any mode ---- */

/** As `tarvo_current_location`, also in mode TARVO_DEACTIVATED. */
TARVO_C_API tarvo_result tarvo_engine_last_location(tarvo_sdk* sdk, tarvo_fix* out);
/** As `tarvo_get_history`, but an empty history is one too. */
TARVO_C_API tarvo_result tarvo_engine_history(tarvo_sdk* sdk, tarvo_format format, double since, double until,
                                              tarvo_history** out);
/** A history of the past trip with the highest identifier alone; TARVO_ABSENT without any. */
TARVO_C_API tarvo_result tarvo_engine_last_trip(tarvo_sdk* sdk, tarvo_history** out);
/** The places, highest identifier first, in a JSON list: objects of "poi_id", "latitude", "longitude" and the texts
 * "point_geo_json" and "zone_geo_json", as far as they are there. Give `*json` to `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_engine_places(tarvo_sdk* sdk, char** json);
/** The identities, in a JSON list: objects of "uuid" and "timestamp". Give `*json` to `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_engine_users(tarvo_sdk* sdk, char** json);
/** Stores past trips as the backend sends them, a JSON list of objects with "pasttrip_id"; returns at once. The newest
 * is told as after a download. */
TARVO_C_API tarvo_result tarvo_engine_add_trips(tarvo_sdk* sdk, const char* json);
/** The same of places, with "poi_id". */
TARVO_C_API tarvo_result tarvo_engine_add_places(tarvo_sdk* sdk, const char* json);
/** Deletes all past trips, with the next save: `tarvo_reset_local_history` saves. */
TARVO_C_API tarvo_result tarvo_engine_remove_trips(tarvo_sdk* sdk);
TARVO_C_API tarvo_result tarvo_engine_remove_places(tarvo_sdk* sdk); /**< The same of places. */

/* ---- The user ---- */

/** The one stored user, to be given to `tarvo_free`; TARVO_ABSENT without one, and then the device is registered if
 * there is a secret. */
TARVO_C_API tarvo_result tarvo_engine_check_user(tarvo_sdk* sdk, char** uuid);
/** Asks the backend for an identity in any case; `tarvo_set_api_key_secret` does so when it is needed. */
TARVO_C_API tarvo_result tarvo_engine_register_user(tarvo_sdk* sdk);

/* ---- Records ---- */

/** The way between two fixes in metres, along the shortest line on the WGS 84 ellipsoid. */
TARVO_C_API tarvo_result tarvo_distance(const tarvo_fix* from, const tarvo_fix* to, double* metres);
/** A prediction of these contents; NULL texts are empty, `route` and `geojson` are JSON objects or NULL. Give it to
 * `tarvo_trip_unref`. */
TARVO_C_API tarvo_result tarvo_trip_new(const tarvo_trip_info* info, const char* route, const char* geojson,
                                        tarvo_trip** out);
/** The coordinates of the first feature of the next destination, in JSON; to be given to `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_trip_coordinates(tarvo_trip* trip, char** json);
/** Another cursor, which reads on from the same place. */
TARVO_C_API tarvo_result tarvo_cursor_copy(tarvo_cursor* cursor, tarvo_cursor** out);

#ifdef __cplusplus
}
#endif

#endif

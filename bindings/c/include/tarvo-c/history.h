/** @file
 * Histories, and the positions, past trips and predictions that are read from the SDK; a part of tarvo.h, which
 * includes it and has the rules. */
#ifndef TARVO_C_HISTORY_H
#define TARVO_C_HISTORY_H

#include <tarvo-c/tarvo.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Histories ---- */

/** Another share of the same, to be given back too; NULL for what is no history. */
TARVO_C_API tarvo_history* tarvo_history_ref(tarvo_history* history);
TARVO_C_API void tarvo_history_unref(tarvo_history* history); /**< NULL is nothing */
/** How many positions it has; 0 for what is no history. */
TARVO_C_API size_t tarvo_history_positions(tarvo_history* history);
TARVO_C_API size_t tarvo_history_trips(tarvo_history* history); /**< How many past trips. */

/** Which members of a position are there; a text that is not is NULL. */
typedef enum tarvo_position_has TARVO_C_INT {
  TARVO_HAS_LATITUDE = 1,            /**< `latitude` */
  TARVO_HAS_LONGITUDE = 2,           /**< `longitude` */
  TARVO_HAS_ALTITUDE = 4,            /**< `altitude` */
  TARVO_HAS_HORIZONTAL_ACCURACY = 8, /**< `horizontal_accuracy` */
  TARVO_HAS_VERTICAL_ACCURACY = 16,  /**< `vertical_accuracy` */
  TARVO_HAS_COURSE = 32,             /**< `course` */
  TARVO_HAS_SPEED = 64,              /**< `speed` */
  TARVO_HAS_FIX_TIME = 128,          /**< `fix_time` */
  TARVO_HAS_STORED_TIME = 256,       /**< `stored_time` */
  TARVO_HAS_FLOOR = 512,             /**< `floor` */
  TARVO_HAS_INDEX = 1024,            /**< `index` */
  TARVO_HAS_UNSENT = 2048,           /**< `unsent` */
  TARVO_HAS_SENT_WITHOUT_ACK = 4096  /**< `sent_without_ack` */
} tarvo_position_has;
/** A stored position; what is absent is 0 and NULL. See tarvo/Records.h. */
typedef struct tarvo_position {
  size_t size;                       /**< sizeof */
  uint64_t has;                      /**< bits of tarvo_position_has */
  double latitude;                   /**< degrees north, WGS 84 */
  double longitude;                  /**< degrees east */
  double altitude;                   /**< metres above sea level */
  double horizontal_accuracy;        /**< metres; negative: the place is invalid */
  double vertical_accuracy;          /**< metres; negative: the altitude is invalid */
  double course;                     /**< degrees clockwise from true north; negative: unknown */
  double speed;                      /**< metres per second; negative: unknown */
  double fix_time;                   /**< when the receiver made the fix */
  double stored_time;                /**< when it was stored */
  int64_t floor;                     /**< of a building, 0 at the ground */
  int64_t index;                     /**< running number from 0; the backend knows it by this */
  int32_t unsent;                    /**< truth: until the backend has acknowledged it */
  int32_t sent_without_ack;          /**< truth: posted, and not acknowledged so far */
  const char* service_action;        /**< why it was stored, as "loc_changed" */
  const char* localisation_method;   /**< how the fix came about, as "sls" */
  const char* user_action;           /**< always "unknown" */
  const char* app_name;              /**< with the host's bundle identifier */
  const char* app_action;            /**< always "unused" */
  const char* identifier_for_vendor; /**< of the device */
} tarvo_position;
/** Reads the positions from the first on, in pieces: a year of them takes no memory. The cursor keeps its history.
 * One thread at a time; give it to `tarvo_cursor_free`. */
TARVO_C_API tarvo_result tarvo_history_read(tarvo_history* history, tarvo_cursor** out);
/** The next position; TARVO_ABSENT behind the last. Its texts live until the next call with this cursor.
 * TARVO_UNFINISHED when the store cannot be read; the next call tries again. */
TARVO_C_API tarvo_result tarvo_cursor_next(tarvo_cursor* cursor, tarvo_position* out);
TARVO_C_API void tarvo_cursor_free(tarvo_cursor* cursor); /**< NULL is nothing */

/** Which members of a past trip are there. */
typedef enum tarvo_past_trip_has TARVO_C_INT {
  TARVO_TRIP_HAS_ID = 1,                  /**< `id` */
  TARVO_TRIP_HAS_DEPARTURE_LATITUDE = 2,  /**< `departure_latitude` */
  TARVO_TRIP_HAS_DEPARTURE_LONGITUDE = 4, /**< `departure_longitude` */
  TARVO_TRIP_HAS_ARRIVAL_LATITUDE = 8,    /**< `arrival_latitude` */
  TARVO_TRIP_HAS_ARRIVAL_LONGITUDE = 16,  /**< `arrival_longitude` */
  TARVO_TRIP_HAS_START_TIME = 32,         /**< `start_time` */
  TARVO_TRIP_HAS_ARRIVAL_TIME = 64        /**< `arrival_time` */
} tarvo_past_trip_has;
/** A past trip as the backend rebuilt it; what is absent, or was lacking in its answer, is 0 and NULL. */
typedef struct tarvo_past_trip {
  size_t size;                /**< sizeof */
  uint64_t has;               /**< bits of tarvo_past_trip_has */
  int64_t id;                 /**< the backend's number of the trip */
  double departure_latitude;  /**< degrees north */
  double departure_longitude; /**< degrees east */
  double arrival_latitude;    /**< degrees north */
  double arrival_longitude;   /**< degrees east */
  double start_time;          /**< when it began */
  double arrival_time;        /**< when it ended */
  const char* route;          /**< GeoJSON; lives as long as the history */
} tarvo_past_trip;
/** A past trip, from 0 on, by ascending identifier; TARVO_ABSENT behind the last. */
TARVO_C_API tarvo_result tarvo_history_trip(tarvo_history* history, size_t trip, tarvo_past_trip* out);

/** The smallest rectangle around points, in degrees; all -200 when no point can be read. This record does not grow. */
typedef struct tarvo_bounds {
  double south; /**< the lowest latitude */
  double west;  /**< the lowest longitude */
  double north; /**< the highest latitude */
  double east;  /**< the highest longitude */
} tarvo_bounds;
/** Of all trips, or else of all positions; TARVO_ABSENT without any, and when the positions cannot be read. */
TARVO_C_API tarvo_result tarvo_history_bounds(tarvo_history* history, tarvo_bounds* out);
/** Of the first position; 0 and 0 without any. */
TARVO_C_API tarvo_result tarvo_history_first(tarvo_history* history, double* latitude, double* longitude);
/** Of GeoJSON. */
typedef enum tarvo_geometry TARVO_C_INT {
  TARVO_LINESTRING = 0, /**< a line for each stretch of collection */
  TARVO_MULTIPOINT = 1  /**< points */
} tarvo_geometry;
/** A FeatureCollection of the positions, byte for byte that of `LocationsHistory::toGeoJSON`. Give it to `tarvo_free`.
 * `length` (may be NULL) is without the zero byte. TARVO_ABSENT when no position has coordinates, and when they cannot
 * be read. */
TARVO_C_API tarvo_result tarvo_history_geojson(tarvo_history* history, tarvo_geometry geometry, char** json,
                                               size_t* length);

/* ---- Predictions ---- */

TARVO_C_API tarvo_trip* tarvo_trip_ref(tarvo_trip* trip); /**< Another share; NULL for what is no trip. */
TARVO_C_API void tarvo_trip_unref(tarvo_trip* trip);      /**< NULL is nothing. */
/** What a prediction says. The texts live as long as the trip; none is NULL. */
typedef struct tarvo_trip_info {
  size_t size;                  /**< sizeof */
  int64_t id;                   /**< the backend's number of the prediction */
  double destination_latitude;  /**< degrees; -200: unset */
  double destination_longitude; /**< degrees; -200: unset */
  double probability;           /**< as the backend sent it */
  double duration;              /**< as the backend sent it */
  const char* start_time;       /**< as the backend sent it: 2017-03-02T08:15:30.123+0000 */
  const char* arrival_time;     /**< in the same form */
  const char* start_name;       /**< of the place that it begins at */
  const char* arrival_name;     /**< of the place that it leads to */
} tarvo_trip_info;
TARVO_C_API tarvo_result tarvo_trip_get(tarvo_trip* trip, tarvo_trip_info* out); /**< All that is a number or a text. */
/** The start in the zone of the device; to be given to `tarvo_free`. TARVO_ABSENT when it cannot be read. */
TARVO_C_API tarvo_result tarvo_trip_start_time(tarvo_trip* trip, char** out);
/** GeoJSON of the predicted route; to be given to `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_trip_route(tarvo_trip* trip, char** json);
/** GeoJSON of the next destination, where the operations find the route; to be given to `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_trip_geojson(tarvo_trip* trip, char** json);
/** The points of the route as fixes of now: at most `capacity` of them to `out`, the number of all to `count`. With
 * capacity 0 `out` may be NULL. TARVO_ABSENT without a route, and when one of its points is not a pair of numbers. */
TARVO_C_API tarvo_result tarvo_trip_locations(tarvo_trip* trip, tarvo_fix* out, size_t capacity, size_t* count);
/** The first point of the route, as a fix of now; TARVO_ABSENT without one. */
TARVO_C_API tarvo_result tarvo_trip_start(tarvo_trip* trip, tarvo_fix* out);
/** The destination, as a fix of now: (-200, -200) while it is unset. */
TARVO_C_API tarvo_result tarvo_trip_destination(tarvo_trip* trip, tarvo_fix* out);

#ifdef __cplusplus
}
#endif

#endif

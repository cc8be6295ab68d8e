/** @file
 * The SDK for C, and for whatever can call C. docs/c.md has a first program and all rules on one page; in short:
 *
 * What comes through `**out` is the caller's, to be given back with the function named there. `const` pointers are
 * borrowed. What a function is given it copies. Any thread may call, unless a function says otherwise; for callbacks
 * see `tarvo_callbacks`. No mistake of a caller ends the process, and no exception leaves a function: a negative result
 * means that nothing was done and nothing was written to any `out`.
 *
 * Set `size` of a record that begins with it to `sizeof`: such records may get more members at their end.
 *
 * Texts: UTF-8, ended by a zero byte (paths: bytes). Times: seconds since 1970-01-01 UTC. Truth: 0 and 1. */
#ifndef TARVO_C_TARVO_H
#define TARVO_C_TARVO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports. */
#if defined(__GNUC__)
#define TARVO_C_API __attribute__((visibility("default")))
#else
#define TARVO_C_API
#endif

/** Where a language can say so, an enumeration is an int: then a number that it does not list is a mistake to be told,
 * and not undefined. */
#if defined(__cplusplus) && __cplusplus >= 201103L
#define TARVO_C_INT : int
#else
#define TARVO_C_INT
#endif

/* ---- Results, versions, memory ---- */

/** How a call has ended: negative is a mistake of the caller, or no memory. */
typedef enum tarvo_result TARVO_C_INT {
  TARVO_OK = 0,            /**< done */
  TARVO_ABSENT = 1,        /**< there is none: no position, no history, the end of a list */
  TARVO_UNFINISHED = 2,    /**< the time was up, or the end was not reached: something is left */
  TARVO_BAD_ARGUMENT = -1, /**< NULL, no UTF-8, out of range, a `size` that no record has */
  TARVO_BAD_HANDLE = -2,   /**< given back before, of another kind, or never given */
  TARVO_BAD_JSON = -3,     /**< no JSON, or not of the shape that is asked for */
  TARVO_ALREADY = -4,      /**< the process has its SDK; a choice that was made */
  TARVO_TOO_LATE = -5,     /**< has to be set before the first `tarvo_sdk_new`, and differs from what is in use */
  TARVO_TOO_EARLY = -6,    /**< a position is needed, and there is none yet: see `tarvo_push_received` */
  TARVO_IN_CALLBACK = -7,  /**< would wait for the callback that it is called from */
  TARVO_WRONG_THREAD = -8, /**< for the main thread only */
  TARVO_FORKED = -9,       /**< the process is a child of the one that has the SDK */
  TARVO_REFUSED = -10,     /**< the SDK refuses it; the log says why */
  TARVO_NO_MEMORY = -11,   /**< nothing was done */
  TARVO_INTERNAL = -12     /**< a fault of the SDK */
} tarvo_result;

/** The result's name in words; never NULL. */
TARVO_C_API const char* tarvo_result_text(tarvo_result result);
/** The SDK's version, as "0.1.0". */
TARVO_C_API const char* tarvo_version(void);
/** Gives back a text that a function has given through `char **`; NULL is nothing. */
TARVO_C_API void tarvo_free(char* text);
/** How many handles (SDK, histories, trips, cursors, alerts) are in use, and how much whose `released` is still to come
 * (tables, handlers, a log function): 0 where nothing leaks. */
TARVO_C_API size_t tarvo_live_objects(void);

/* ---- Handles ---- */

typedef struct tarvo_sdk tarvo_sdk;         /**< the SDK; one in a process */
typedef struct tarvo_history tarvo_history; /**< positions or past trips; immutable and counted */
typedef struct tarvo_cursor tarvo_cursor;   /**< where a reading of positions has come to */
typedef struct tarvo_trip tarvo_trip;       /**< a prediction; immutable and counted */
typedef struct tarvo_alert tarvo_alert;     /**< what is to be shown to the user; counted */

/* ---- Before the SDK ---- */

/** Where store, settings and logs lie. TARVO_TOO_LATE once another home has been asked for. */
TARVO_C_API tarvo_result tarvo_set_home(const char* directory);
/** The host in a JSON object: "TarvoApiKey", "TarvoClientID", "CFBundleIdentifier", and options as tarvo/HostKeys.h
 * names them. TARVO_TOO_LATE once another description has been read. */
TARVO_C_API tarvo_result tarvo_set_info(const char* json);
/** The same from a property list. */
TARVO_C_API tarvo_result tarvo_set_info_file(const char* path);
/** The directories of the store (the last) and of the logs (the first), in place of `Documents` in the home. May be set
 * at any time; what is open stays where it is. */
TARVO_C_API tarvo_result tarvo_set_document_directories(const char* const* directories, size_t count);
/** The backend, as "https://backend.example/api". Plain http leads to this machine only, unless it is allowed.
 * TARVO_REFUSED for what is no such URL, TARVO_TOO_LATE after the first `tarvo_sdk_new` for any but the one in use. */
TARVO_C_API tarvo_result tarvo_set_server(const char* url, int allow_plain_http);

/** See tarvo/platform/TransferOptions.h; NULL or "" leaves a thing as it is without these options. */
typedef struct tarvo_transfer_options {
  size_t size;                         /**< sizeof */
  const char* proxy;                   /**< a URL; else the environment's proxies */
  const char* ca_file;                 /**< PEM: who may vouch for a server; else the system's authorities */
  const char* client_certificate_file; /**< PEM: for servers that ask for one */
  const char* client_key_file;         /**< PEM; else the key is in the file of the certificate */
  const char* client_key_passphrase;   /**< of a key that is encrypted */
  const char* network_interface;       /**< as "wwan0"; else the one that the system's routes choose */
} tarvo_transfer_options;
/** Before the first transfer; TARVO_TOO_LATE after it. */
TARVO_C_API tarvo_result tarvo_set_transfer_options(const tarvo_transfer_options* options);

typedef void (*tarvo_log_line)(void* user, const char* line, size_t length); /**< `line` ends with a zero byte too. */
/** Takes each line of the system log, which may hold secrets. Called on any thread, several at once, from the midst of
 * the SDK's work: every function answers TARVO_IN_CALLBACK there. NULL brings back standard error and releases nothing
 * of its own. `released` (may be NULL) is called once, when no line comes any more: as with `tarvo_callbacks`. May be
 * set before all else and at any time. */
TARVO_C_API tarvo_result tarvo_set_log(tarvo_log_line line, void* user, void (*released)(void* user));

/** A clock that stands still until it is moved, for tests and for recordings: positions are stored, and the channel
 * ages, by it. TARVO_ALREADY the second time, TARVO_TOO_LATE after the first `tarvo_sdk_new`. */
TARVO_C_API tarvo_result tarvo_set_manual_clock(double start);
/** Only forwards; an earlier date changes nothing. TARVO_ABSENT without such a clock. */
TARVO_C_API tarvo_result tarvo_move_clock(double date);
/** What the clock in use shows; NaN inside a log function and in a forked child. */
TARVO_C_API double tarvo_now(void);

/* ---- The SDK ---- */

/** One in a process: TARVO_ALREADY while there is one. The first builds the engine, which lives as long as the process.
 * Unlike in C++, answers that break the protocol do not stop the process: `drops_protocol_breaks` is switched on. */
TARVO_C_API tarvo_result tarvo_sdk_new(tarvo_sdk** out);
/** Gives the handle and its callbacks back; NULL is nothing. The engine goes on as it was: activate TARVO_DEACTIVATED
 * before to stop it. */
TARVO_C_API void tarvo_sdk_free(tarvo_sdk* sdk);

/** What a mode switches on: tarvo/ActivationMode.h. Any integer is a mode. */
typedef enum tarvo_mode TARVO_C_INT {
  TARVO_DEACTIVATED = -4,       /**< everything stopped */
  TARVO_LOCAL_FOREGROUND = 0,   /**< collects on the screen only, uploads nothing */
  TARVO_LOCAL_BACKGROUND = 4,   /**< collects always */
  TARVO_BACKEND_BACKGROUND = 8, /**< and uploads; past trips, push messages */
  TARVO_BACKEND_GEOPROFILE = 12 /**< and predictions */
} tarvo_mode;
/** Starts collection in that mode, as `Tarvo::activate`. */
TARVO_C_API tarvo_result tarvo_activate(tarvo_sdk* sdk, int64_t mode);
TARVO_C_API int64_t tarvo_active_mode(void); /**< TARVO_DEACTIVATED at first. */
/** The mode alone, for a program that only reads. */
TARVO_C_API tarvo_result tarvo_set_active_mode(tarvo_sdk* sdk, int64_t mode);
TARVO_C_API tarvo_result tarvo_service_connect(tarvo_sdk* sdk); /**< As `Tarvo::serviceConnect`. */
/** Lets new positions reach `locations`; nothing in mode TARVO_DEACTIVATED. */
TARVO_C_API tarvo_result tarvo_request_location_update(tarvo_sdk* sdk);
TARVO_C_API tarvo_result tarvo_stop_location_update(tarvo_sdk* sdk); /**< Keeps them from it; collection goes on. */
/** Takes the right to write to the home now, waiting up to `seconds` for another process. TARVO_REFUSED with the reason
 * in `*why` (to be given to `tarvo_free`; `why` may be NULL). */
TARVO_C_API tarvo_result tarvo_claim_store(tarvo_sdk* sdk, double seconds, char** why);

/* ---- What the host feeds ---- */

/** A fix of a receiver. This record does not grow: arrays of it are given. */
typedef struct tarvo_fix {
  double latitude;            /**< degrees north, WGS 84 */
  double longitude;           /**< degrees east */
  double altitude;            /**< metres above sea level */
  double horizontal_accuracy; /**< metres; negative: the place is invalid */
  double vertical_accuracy;   /**< metres; negative: the altitude is invalid */
  double course;              /**< degrees clockwise from true north; negative: unknown */
  double speed;               /**< metres per second; negative: unknown */
  double time;                /**< when the receiver made it */
  int32_t floor;              /**< of a building, 0 at the ground */
  int32_t has_floor;          /**< truth: whether `floor` is known */
} tarvo_fix;
/** A fix of now of which nothing is known but its place, accurate to 0 m. NULL is nothing. */
TARVO_C_API void tarvo_fix_init(tarvo_fix* fix);
/** Oldest first; queued. A fix that is not finite, off the globe or outside the years 1970 to 9999 is left out, with a
 * line in the log and counted in `tarvo_health`. */
TARVO_C_API tarvo_result tarvo_deliver(const tarvo_fix* fixes, size_t count);
/** Positioning itself fails. `code`: 0 no place for now, 1 the receiver may not be used. */
TARVO_C_API tarvo_result tarvo_report_failure(int64_t code);

/** What the user allows. */
typedef enum tarvo_permission TARVO_C_INT {
  TARVO_NOT_DETERMINED = 0,        /**< not asked so far */
  TARVO_RESTRICTED = 1,            /**< the user may not decide */
  TARVO_DENIED = 2,                /**< no */
  TARVO_AUTHORIZED_ALWAYS = 3,     /**< in the background too */
  TARVO_AUTHORIZED_WHEN_IN_USE = 4 /**< while the application is in use */
} tarvo_permission;
/** Tells what the user has decided, which is kept in the home. */
TARVO_C_API tarvo_result tarvo_set_permission(tarvo_permission permission);
TARVO_C_API tarvo_permission tarvo_get_permission(void); /**< TARVO_AUTHORIZED_ALWAYS at first. */

/** Where the application is; to be told on the main thread. */
typedef enum tarvo_app_state TARVO_C_INT {
  TARVO_APP_ACTIVE = 0,    /**< on the screen */
  TARVO_APP_INACTIVE = 1,  /**< about to leave it, or just back */
  TARVO_APP_BACKGROUND = 2 /**< not on the screen */
} tarvo_app_state;
/** It has started; once, after `tarvo_activate`. While collection is on, stores the last position again, as an event,
 * and goes by the battery as in the background, until TARVO_APP_ACTIVE is set. */
TARVO_C_API tarvo_result tarvo_app_launched(void);
/** Stores such an event too, except for TARVO_APP_INACTIVE. What each changes: docs/phone.md. In mode
 * TARVO_LOCAL_FOREGROUND the background ends collection. */
TARVO_C_API tarvo_result tarvo_set_app_state(tarvo_app_state state);
TARVO_C_API tarvo_app_state tarvo_get_app_state(void); /**< TARVO_APP_ACTIVE at first. */

/** What feeds the device. */
typedef enum tarvo_battery TARVO_C_INT {
  TARVO_BATTERY_UNKNOWN = 0,   /**< nobody can tell */
  TARVO_BATTERY_UNPLUGGED = 1, /**< the battery */
  TARVO_BATTERY_CHARGING = 2,  /**< mains power, and the battery is not full */
  TARVO_BATTERY_FULL = 3       /**< mains power, and the battery is full */
} tarvo_battery;
/** The host knows better than the system, from now on. `level`: 0 to 1, or -1 when it is unknown. */
TARVO_C_API tarvo_result tarvo_set_battery(tarvo_battery state, double level);

/** A push message, a JSON object. TARVO_ABSENT when it is for somebody else; TARVO_TOO_EARLY in a mode from 8 before
 * this process was given a usable fix or, without the permission "always", while there is no stored position. */
TARVO_C_API tarvo_result tarvo_push_received(tarvo_sdk* sdk, const char* json);
TARVO_C_API tarvo_result tarvo_set_device_token(tarvo_sdk* sdk, const char* token); /**< The token for push messages. */
/** The secret of the host's API key, before or after `tarvo_activate`. */
TARVO_C_API tarvo_result tarvo_set_api_key_secret(tarvo_sdk* sdk, const char* secret);
/** For a process that was started to finish transfers: `done` comes on the main queue, then `released`. Both may be
 * NULL; a `done` that never came is released with the SDK. TARVO_ABSENT, keeping nothing, unless the identifier is
 * TARVO_BACKGROUND_SESSION_ID. */
TARVO_C_API tarvo_result tarvo_background_events(tarvo_sdk* sdk, const char* identifier, void (*done)(void* user),
                                                 void* user, void (*released)(void* user));

/* ---- What the host is told ---- */

/** What to ask the user for. */
typedef enum tarvo_permission_request TARVO_C_INT {
  TARVO_ASK_WHEN_IN_USE = 0, /**< while the application is in use */
  TARVO_ASK_ALWAYS = 1       /**< in the background too */
} tarvo_permission_request;

/** Functions of the host; each may be NULL. None may throw a C++ exception or leave by longjmp. In all of them the SDK
 * may be called, but not what would wait for them (TARVO_IN_CALLBACK).
 *
 * `released` is called exactly once, after which none of this table comes any more: when another table has taken its
 * place or the SDK was freed, and the last call under way has returned; on the thread on which that was. Where a
 * function of the receiver stands in the table that is after `receiver_stop`, on its thread. A table that is refused is
 * not released. */
typedef struct tarvo_callbacks {
  size_t size;                  /**< sizeof */
  void* user;                   /**< the host's own, handed to each function */
  void (*released)(void* user); /**< the last call; `user` may be freed in it */
  /** On threads of the SDK, one call at a time for each. Arrays and handles are borrowed for the call; a handle may be
   * kept with `…_ref`. */
  void (*locations)(void* user, const tarvo_fix* fixes, size_t count);
  void (*route_matched)(void* user, tarvo_history* history); /**< after `tarvo_request_route_match` */
  void (*prediction)(void* user, tarvo_trip* trip);          /**< after `tarvo_request_prediction_update` */
  /** The receiver, switched on (again when the accuracy has changed) and off; on the delivery queue. */
  void (*receiver_start)(void* user, double accuracy_metres); /**< -1: the best there is */
  void (*receiver_stop)(void* user);                          /**< nobody needs fixes; only after a start */
  /** On the main queue: inside `tarvo_main_run_pending` and what waits on the main thread. */
  void (*prompt)(void* user, tarvo_permission_request request);      /**< answered by `tarvo_set_permission` */
  int (*present_alert)(void* user, tarvo_alert* alert);              /**< 0: there is nothing to show it on */
  void (*open_url)(void* user, const char* url);                     /**< for instance the settings */
  void (*register_for_push)(void* user);                             /**< answered by `tarvo_set_device_token` */
  void (*set_background_fetch_interval)(void* user, double seconds); /**< the least between two fetches */
} tarvo_callbacks;
/** Takes the place of the table before; NULL: none. */
TARVO_C_API tarvo_result tarvo_set_callbacks(tarvo_sdk* sdk, const tarvo_callbacks* callbacks);

/** Another share, to be given back with `tarvo_alert_unref`; NULL for what is no alert. */
TARVO_C_API tarvo_alert* tarvo_alert_ref(tarvo_alert* alert);
TARVO_C_API void tarvo_alert_unref(tarvo_alert* alert); /**< NULL is nothing. */
/** What it says; the texts live as long as the alert. */
TARVO_C_API tarvo_result tarvo_alert_texts(tarvo_alert* alert, const char** title, const char** message);
/** A button, from 0 on; TARVO_ABSENT behind the last. Its text lives as long as the alert. */
TARVO_C_API tarvo_result tarvo_alert_action(tarvo_alert* alert, size_t action, const char** title, int* is_cancel);
/** The user has chosen; once, on any thread: TARVO_ALREADY after that, TARVO_ABSENT behind the last button. */
TARVO_C_API tarvo_result tarvo_alert_choose(tarvo_alert* alert, size_t action);

/* ---- The main queue, and the end ---- */

/** Readable while blocks wait; the SDK's own, not to be closed. -1 on failure. */
TARVO_C_API int tarvo_main_fd(void);
/** Runs what waits now; main thread only. `count` (may be NULL) is the number of blocks run. */
TARVO_C_API tarvo_result tarvo_main_run_pending(size_t* count);
/** Waits until all queued work and all transfers are done, up to so many real seconds; on the main thread it runs the
 * main queue, elsewhere somebody must. Then writes what could not be saved before. TARVO_UNFINISHED when the time was
 * up. */
TARVO_C_API tarvo_result tarvo_wait_until_idle(tarvo_sdk* sdk, double seconds);

/** How a flush has ended: tarvo/FlushResult.h. */
typedef enum tarvo_flush_result TARVO_C_INT {
  TARVO_FLUSH_DELIVERED = 0,        /**< nothing is left of what had been collected before */
  TARVO_FLUSH_TIME_IS_UP = 1,       /**< something is left, and goes with a later pass */
  TARVO_FLUSH_MODE_FORBIDS = 2,     /**< something is left, and the mode is below 8 */
  TARVO_FLUSH_NOT_REGISTERED = 3,   /**< the same, without a user and a secret to get one */
  TARVO_FLUSH_BYTES_USED_UP = 4,    /**< the same, and the bound of bytes holds it back */
  TARVO_FLUSH_SESSION_FAILED = 5,   /**< the same, and this process uploads no more */
  TARVO_FLUSH_STORE_UNAVAILABLE = 6 /**< the store cannot be used by this process */
} tarvo_flush_result;
/** Uploads what has been collected, up to so many real seconds; see `Tarvo::flush`. TARVO_UNFINISHED for all but
 * TARVO_FLUSH_DELIVERED; `out` (may be NULL) is written then too. */
TARVO_C_API tarvo_result tarvo_flush(tarvo_sdk* sdk, double seconds, tarvo_flush_result* out);
/** For a watchdog: `answered` comes on the main queue once the question has gone through the engine's queues, behind
 * all that waits there; a part that is stuck keeps it away. `released` (may be NULL) is called once: behind it, or when
 * the SDK is freed. */
TARVO_C_API tarvo_result tarvo_probe(tarvo_sdk* sdk, void (*answered)(void* user), void* user,
                                     void (*released)(void* user));

/* ---- Answers ---- */

/** The stored position with the newest fix time; TARVO_ABSENT in mode TARVO_DEACTIVATED, without one, and when it lacks
 * a value. Asks for the permission that the mode needs. */
TARVO_C_API tarvo_result tarvo_current_location(tarvo_sdk* sdk, tarvo_fix* out);
/** What a history consists of. */
typedef enum tarvo_format TARVO_C_INT {
  TARVO_FORMAT_RAW = 1,         /**< positions */
  TARVO_FORMAT_EXTRAPOLATED = 2 /**< past trips */
} tarvo_format;
/** Positions from mode 4, by the time of storage, past trips from mode 8, by their start; both bounds are included, NaN
 * is an open one. TARVO_ABSENT in lower modes, and when there are none. `*out` is given back with
 * `tarvo_history_unref`. */
TARVO_C_API tarvo_result tarvo_get_history(tarvo_sdk* sdk, tarvo_format format, double since, double until,
                                           tarvo_history** out);
/** The latest prediction, maybe an empty one; to be given to `tarvo_trip_unref`. TARVO_ABSENT below mode 12. */
TARVO_C_API tarvo_result tarvo_next_trip(tarvo_sdk* sdk, tarvo_trip** out);
/** The same in any mode. */
TARVO_C_API tarvo_result tarvo_last_prediction(tarvo_sdk* sdk, tarvo_trip** out);
TARVO_C_API tarvo_result tarvo_set_last_prediction(tarvo_sdk* sdk, tarvo_trip* trip); /**< NULL sets an empty one. */
/** Calls `each` here and now with the zone of each stored place, GeoJSON, highest identifier first; the text is
 * borrowed for the call. TARVO_ABSENT without any. */
TARVO_C_API tarvo_result tarvo_points_of_interest(tarvo_sdk* sdk, void (*each)(void* user, const char* geojson),
                                                  void* user);

/** How far the upload has come. */
typedef struct tarvo_sync_status {
  size_t size;               /**< sizeof */
  int64_t stored;            /**< positions in the store's file; the next three are of these */
  int64_t unsent;            /**< never posted */
  int64_t awaiting;          /**< posted, not acknowledged */
  int64_t acknowledged;      /**< the rest */
  int64_t unsaved;           /**< in memory alone, since saving failed */
  int64_t last_index;        /**< of all, also unsaved; -1: none */
  uint64_t batches_posted;   /**< by this process */
  uint64_t positions_posted; /**< by this process, repeats included */
  int32_t store_available;   /**< 0 also while another process writes and this one wants to */
  int32_t reserved;          /**< nothing */
} tarvo_sync_status;
/** Counts in the store, in any mode. */
TARVO_C_API tarvo_result tarvo_get_sync_status(tarvo_sdk* sdk, tarvo_sync_status* out);
/** What `Tarvo::health` tells, as JSON: docs/c.md. Give `*json` to `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_health(tarvo_sdk* sdk, char** json);

/* ---- Backend ---- */

/** Starts the host's own upload pass, in modes from 8: it neither waits after a failure nor keeps an interval, but does
 * not go beyond the bound of bytes. */
TARVO_C_API tarvo_result tarvo_upload(tarvo_sdk* sdk);
TARVO_C_API tarvo_result tarvo_request_route_match(tarvo_sdk* sdk); /**< New past trips come to `route_matched`. */
TARVO_C_API tarvo_result tarvo_stop_route_match(tarvo_sdk* sdk);    /**< No more; the subscription stays. */
TARVO_C_API tarvo_result tarvo_request_prediction_update(tarvo_sdk* sdk); /**< Predictions come to `prediction`. */
TARVO_C_API tarvo_result tarvo_stop_prediction_update(tarvo_sdk* sdk);    /**< No more; the subscription stays. */
/** Subscribes to push messages: `json` is what the backend is to send. */
TARVO_C_API tarvo_result tarvo_set_subscription(tarvo_sdk* sdk, const char* name, const char* json);
TARVO_C_API tarvo_result tarvo_set_unsubscription(tarvo_sdk* sdk, const char* name); /**< Ends that subscription. */
/** Sets a tag of this user at the backend, now and with each push message. */
TARVO_C_API tarvo_result tarvo_set_tag(tarvo_sdk* sdk, const char* name, const char* value);
/** Removes a tag there, now and with each push message. */
TARVO_C_API tarvo_result tarvo_unset_tag(tarvo_sdk* sdk, const char* name);
/** Asks the backend to forget past trips and the profile; what is stored here stays. Nothing is sent before this device
 * is registered. */
TARVO_C_API tarvo_result tarvo_reset_backend_history(tarvo_sdk* sdk);
TARVO_C_API tarvo_result tarvo_reset_geo_profile_history(tarvo_sdk* sdk); /**< The profile alone. */
/** Deletes stored past trips and places; positions stay. */
TARVO_C_API tarvo_result tarvo_reset_local_history(tarvo_sdk* sdk);
/** For a person's right to be forgotten: see `Tarvo::eraseEverything`. Call nothing else meanwhile. TARVO_UNFINISHED
 * when not everything could be erased; then call it again, or start anew, and activate nothing before. */
TARVO_C_API tarvo_result tarvo_erase_everything(tarvo_sdk* sdk);

/* ---- Options and values ---- */

/** See tarvo/DeliveryOptions.h. */
typedef struct tarvo_delivery_options {
  size_t size;                       /**< sizeof */
  double least_pass_interval;        /**< seconds from one batch to the next */
  int32_t confirmed;                 /**< truth: only an answer acknowledges a batch */
  int32_t network_is_metered;        /**< truth: what the network in use costs */
  int32_t drops_protocol_breaks;     /**< truth: 0 lets them stop the process */
  int32_t has_metered_bytes_per_day; /**< truth: whether there is a bound */
  uint64_t metered_bytes_per_day;    /**< bytes of a day that batches may take while the network is metered */
} tarvo_delivery_options;
TARVO_C_API tarvo_result tarvo_get_delivery_options(tarvo_sdk* sdk, tarvo_delivery_options* out); /**< Those in use. */
/** At any time; what is under way ends as it began. */
TARVO_C_API tarvo_result tarvo_set_delivery_options(tarvo_sdk* sdk, const tarvo_delivery_options* options);

/** See tarvo/StorageLimits.h; 0: no bound. */
typedef struct tarvo_storage_limits {
  size_t size;          /**< sizeof */
  double position_age;  /**< seconds, of acknowledged positions */
  double log_age;       /**< seconds, of log files */
  uint64_t store_bytes; /**< of the store's file */
  uint64_t log_bytes;   /**< of all log files */
} tarvo_storage_limits;
TARVO_C_API tarvo_result tarvo_get_storage_limits(tarvo_sdk* sdk, tarvo_storage_limits* out); /**< Those in use. */
/** At any time; what is under way ends as it began. */
TARVO_C_API tarvo_result tarvo_set_storage_limits(tarvo_sdk* sdk, const tarvo_storage_limits* limits);

/** Values of the process. A text is given as it is, everything else in JSON: true, ["a"], {"name":"value"}. */
typedef enum tarvo_value TARVO_C_INT {
  TARVO_API_KEY = 1,                 /**< the host's key at the backend */
  TARVO_CLIENT_ID = 2,               /**< refused unless it can stand in a URL's path */
  TARVO_BUNDLE_ID = 3,               /**< the host's identifier */
  TARVO_DEVICE_TOKEN = 4,            /**< for push messages */
  TARVO_TOKEN_SENT = 5,              /**< truth: a registration of this process has offered it */
  TARVO_SET_TAGS_LIST = 6,           /**< object of texts */
  TARVO_UNSET_TAGS_LIST = 7,         /**< list of texts */
  TARVO_BACKGROUND_SESSION_ID = 8,   /**< only read */
  TARVO_REMOTE_WEB_SERVER_URL = 9,   /**< only read; `tarvo_set_server` sets it */
  TARVO_USER_UUID = 10,              /**< only read; TARVO_ABSENT until the device is registered */
  TARVO_TERRAMESH_DATA_VERSION = 11, /**< only read */
  TARVO_IDENTIFIER_FOR_VENDOR = 12,  /**< a UUID; "" makes it absent */
  TARVO_SUBSCRIPTION_LIST = 13,      /**< object of texts */
  TARVO_UNSUBSCRIPTION_LIST = 14,    /**< list of texts */
  TARVO_API_KEY_SECRET = 15,         /**< only stores it; what follows is only read */
  TARVO_CALL_FROM_SERVER_KEY = 16,   /**< a name for notifications */
  TARVO_ENGINE_API_KEY = 17,         /**< the user that the last check found */
  TARVO_STARTED = 18,                /**< truth */
  TARVO_ALREADY_RECEIVED_UUID = 19,  /**< truth */
  TARVO_RANDOM_ID = 20,              /**< tells processes apart */
  TARVO_APP_STATE = 21,              /**< "app_inactive", "app_paused" or "app_resumed" */
  TARVO_SECRET_KEY = 22,             /**< the setting that holds the user's secret */
  TARVO_UUID_SECRET = 23,            /**< the user's secret */
  TARVO_CHANNEL_IS_HELD = 24,        /**< truth */
  TARVO_CHANNEL_TAKEN_AT = 25,       /**< a time */
  TARVO_LAST_TRIP_ID = 26            /**< the newest past trip that was announced */
} tarvo_value;
/** Give `*out` to `tarvo_free`. TARVO_ABSENT for an identifier or secret that there is not (yet). */
TARVO_C_API tarvo_result tarvo_get_value(tarvo_sdk* sdk, tarvo_value value, char** out);
/** TARVO_REFUSED for an identifier that cannot be one, TARVO_BAD_JSON for another shape, TARVO_BAD_ARGUMENT for what is
 * only read. */
TARVO_C_API tarvo_result tarvo_set_value(tarvo_sdk* sdk, tarvo_value value, const char* text);
/** A setting that outlives the process, such as "tarvologlevel", in JSON; TARVO_ABSENT without one. Give `*json` to
 * `tarvo_free`. */
TARVO_C_API tarvo_result tarvo_get_setting(tarvo_sdk* sdk, const char* key, char** json);
TARVO_C_API tarvo_result tarvo_set_setting(tarvo_sdk* sdk, const char* key, const char* json); /**< NULL removes it. */

#ifdef __cplusplus
}
#endif

#include <tarvo-c/history.h>

#endif

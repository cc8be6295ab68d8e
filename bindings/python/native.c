/* What stands between the SDK's threads and the interpreter.
 *
 * The gate: a thread that asks for the interpreter while that one ends is taken away by it, from the midst of the SDK,
 * which ends the process. So every call into Python goes through a gate, and the gate is closed, and those inside have
 * left, before the interpreter ends. Calls that come later do nothing.
 *
 * The log: lines come from the midst of the SDK's work, maybe with its locks held, so none waits for the interpreter.
 * They are kept here until a thread of Python takes them. */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarvo-c/tarvo.h>
#include <time.h>

/* ---- The gate ---- */

static pthread_mutex_t gate_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t gate_left = PTHREAD_COND_INITIALIZER;
static int gate_is_closed;
static unsigned gate_inside;

static int enter(void) {
  int may;
  pthread_mutex_lock(&gate_mutex);
  may = !gate_is_closed;
  if (may) ++gate_inside;
  pthread_mutex_unlock(&gate_mutex);
  return may;
}

static void leave(void) {
  pthread_mutex_lock(&gate_mutex);
  if (--gate_inside == 0) pthread_cond_broadcast(&gate_left);
  pthread_mutex_unlock(&gate_mutex);
}

static struct timespec in_seconds(double seconds) {
  struct timespec until;
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += (time_t)seconds;
  until.tv_nsec += (long)((seconds - (double)(time_t)seconds) * 1e9);
  if (until.tv_nsec >= 1000000000L) {
    until.tv_nsec -= 1000000000L;
    ++until.tv_sec;
  }
  return until;
}

/* Lets nobody in any more. Whether all have left after so many seconds. */
static int gate_close(double seconds) {
  const struct timespec until = in_seconds(seconds);
  int empty;
  pthread_mutex_lock(&gate_mutex);
  gate_is_closed = 1;
  while (gate_inside > 0 && pthread_cond_timedwait(&gate_left, &gate_mutex, &until) == 0) {
  }
  empty = gate_inside == 0;
  pthread_mutex_unlock(&gate_mutex);
  return empty;
}

#define GATED(name, parameters, arguments) \
  static void host_##name parameters;      \
  static void gated_##name parameters {    \
    if (enter()) {                         \
      host_##name arguments;               \
      leave();                             \
    }                                      \
  }
GATED(released, (void* user), (user))
GATED(once, (void* user), (user))
GATED(locations, (void* user, const tarvo_fix* fixes, size_t count), (user, fixes, count))
GATED(route_matched, (void* user, tarvo_history* history), (user, history))
GATED(prediction, (void* user, tarvo_trip* trip), (user, trip))
GATED(receiver_start, (void* user, double accuracy), (user, accuracy))
GATED(receiver_stop, (void* user), (user))
GATED(prompt, (void* user, tarvo_permission_request request), (user, request))
GATED(open_url, (void* user, const char* url), (user, url))
GATED(register_for_push, (void* user), (user))
GATED(set_background_fetch_interval, (void* user, double seconds), (user, seconds))
GATED(place, (void* user, const char* geojson), (user, geojson))

static int host_present_alert(void* user, tarvo_alert* alert);
static int gated_present_alert(void* user, tarvo_alert* alert) {
  int shown;
  if (!enter()) return 0;
  shown = host_present_alert(user, alert);
  leave();
  return shown;
}

/* A table whose functions are the gated ones. A receiver and a prompt change what the SDK does by being there. */
static void gated_table(tarvo_callbacks* table, int with_receiver, int with_prompt) {
  memset(table, 0, sizeof *table);
  table->size = sizeof *table;
  table->released = gated_released;
  table->locations = gated_locations;
  table->route_matched = gated_route_matched;
  table->prediction = gated_prediction;
  table->present_alert = gated_present_alert;
  table->open_url = gated_open_url;
  table->register_for_push = gated_register_for_push;
  table->set_background_fetch_interval = gated_set_background_fetch_interval;
  if (with_receiver) {
    table->receiver_start = gated_receiver_start;
    table->receiver_stop = gated_receiver_stop;
  }
  if (with_prompt) table->prompt = gated_prompt;
}

/* ---- The log ---- */

enum { LOG_BYTES = 1 << 20 }; /* of some 1,500 fixes */

static pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t log_changed = PTHREAD_COND_INITIALIZER;
static char* log_lines; /* each ended by a zero byte */
static size_t log_used, log_capacity;
static uint64_t log_dropped;
static int log_wanted, log_woken;

static int log_has_room(size_t length) {
  size_t capacity = log_capacity == 0 ? 65536 : log_capacity;
  char* larger;
  while (capacity < log_used + length) capacity *= 2;
  if (capacity == log_capacity) return 1;
  if (capacity > LOG_BYTES || (larger = realloc(log_lines, capacity)) == NULL) return 0;
  log_lines = larger;
  log_capacity = capacity;
  return 1;
}

static void log_line(void* user, const char* line, size_t length) {
  (void)user;
  /* The process ends behind it, and nobody could take it any more. */
  if (strncmp(line, "Fatal error", 11) == 0) fprintf(stderr, "%s\n", line);
  pthread_mutex_lock(&log_mutex);
  if (log_wanted) {
    if (log_has_room(length + 1)) {
      memcpy(log_lines + log_used, line, length);
      log_lines[log_used + length] = '\0';
      log_used += length + 1;
      pthread_cond_signal(&log_changed);
    } else {
      ++log_dropped;
    }
  }
  pthread_mutex_unlock(&log_mutex);
}

/* For as long as the process lives: it needs no interpreter. */
static tarvo_result log_take_over(void) { return tarvo_set_log(log_line, NULL, NULL); }

static void log_want(int wanted) {
  pthread_mutex_lock(&log_mutex);
  log_wanted = wanted;
  pthread_mutex_unlock(&log_mutex);
}

/* Ends a wait. */
static void log_wake(void) {
  pthread_mutex_lock(&log_mutex);
  log_woken = 1;
  pthread_cond_signal(&log_changed);
  pthread_mutex_unlock(&log_mutex);
}

/* Waits for lines and gives them all, to be freed with log_free. 0 when it was woken and nothing is left. */
static int log_wait(double seconds, char** lines, size_t* length, uint64_t* dropped) {
  const struct timespec until = in_seconds(seconds);
  int more;
  pthread_mutex_lock(&log_mutex);
  while (log_used == 0 && !log_woken && pthread_cond_timedwait(&log_changed, &log_mutex, &until) == 0) {
  }
  more = log_used > 0 || !log_woken;
  if (!more) log_woken = 0;
  *lines = log_lines;
  *length = log_used;
  *dropped = log_dropped;
  log_lines = NULL;
  log_used = log_capacity = 0;
  log_dropped = 0;
  pthread_mutex_unlock(&log_mutex);
  return more;
}

static void log_free(char* lines) { free(lines); }

/* ---- Exceptions that have nobody above them ---- */

/* Gives an exception to sys.unraisablehook, which only the interpreter itself can call. The arguments are the addresses
 * of two objects. */
static void tell_unraisable(uintptr_t exception, uintptr_t object) {
  const PyGILState_STATE state = PyGILState_Ensure();
  PyObject* const type = PyObject_Type((PyObject*)exception);
  PyErr_SetObject(type, (PyObject*)exception);
  PyErr_WriteUnraisable((PyObject*)object);
  Py_XDECREF(type);
  PyGILState_Release(state);
}

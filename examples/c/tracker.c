/* Feeds the recording of a receiver to the SDK, uploads every position, and prints the history as GeoJSON.
 *
 * usage: tracker HOME BACKEND RECORDING [CLIENT-ID API-KEY API-SECRET]
 *
 * The recording has lines of NMEA 0183 (RMC sentences; others are passed over) or of CSV:
 *   time,latitude,longitude[,accuracy[,speed[,course]]]      seconds since 1970, degrees, metres, m/s, degrees
 * The recording's times drive the SDK's clock, so that an hour takes moments. A program with a receiver at hand leaves
 * the clock alone and calls tarvo_deliver as fixes come.
 *
 *   cc -std=c99 tracker.c $(pkg-config --cflags --libs tarvo-c) -o tracker */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarvo-c/tarvo.h>

/* ---- The recording ---- */

/* Days from 1970-01-01 to a date of the Gregorian calendar. */
static long days_since_1970(int year, int month, int day) {
  static const int before[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const long y = year - (month <= 2 ? 1 : 0);
  return 365L * (year - 1970) + y / 4 - y / 100 + y / 400 - 477 + before[month - 1] + day - 1;
}

/* "4807.038" and "N" as degrees. */
static double degrees(const char* text, const char* hemisphere) {
  const double value = strtod(text, NULL);
  const double whole = (double)(int)(value / 100);
  const double angle = whole + (value - whole * 100) / 60;
  return *hemisphere == 'S' || *hemisphere == 'W' ? -angle : angle;
}

static int is_intact(const char* sentence) {
  unsigned sum = 0;
  const char* at = sentence + 1;
  while (*at != '\0' && *at != '*') sum ^= (unsigned char)*at++;
  return *at == '\0' || strtoul(at + 1, NULL, 16) == sum;
}

/* $GPRMC,time,A,latitude,N,longitude,E,knots,course,date,… */
static int read_rmc(char* sentence, tarvo_fix* fix) {
  char* fields[16];
  size_t count = 0;
  char* next = sentence;
  int hour, minute, day, month, year;
  double second;
  if (strlen(sentence) < 6 || strncmp(sentence + 3, "RMC", 3) != 0 || !is_intact(sentence)) return 0;
  while (next != NULL && count < sizeof fields / sizeof *fields) {
    fields[count++] = next;
    next = strchr(next, ',');
    if (next != NULL) *next++ = '\0';
  }
  if (count < 10 || *fields[2] != 'A') return 0;
  if (sscanf(fields[1], "%2d%2d%lf", &hour, &minute, &second) != 3) return 0;
  if (sscanf(fields[9], "%2d%2d%2d", &day, &month, &year) != 3 || month < 1 || month > 12) return 0;
  fix->time = (double)days_since_1970(2000 + year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  fix->latitude = degrees(fields[3], fields[4]);
  fix->longitude = degrees(fields[5], fields[6]);
  if (*fields[7] != '\0') fix->speed = strtod(fields[7], NULL) * 1852 / 3600;
  if (*fields[8] != '\0') fix->course = strtod(fields[8], NULL);
  return 1;
}

static int read_line(char* line, tarvo_fix* fix) {
  tarvo_fix_init(fix);
  fix->horizontal_accuracy = 5;
  if (*line == '$') return read_rmc(line, fix);
  return sscanf(line, "%lf,%lf,%lf,%lf,%lf,%lf", &fix->time, &fix->latitude, &fix->longitude, &fix->horizontal_accuracy,
                &fix->speed, &fix->course) >= 3;
}

/* ---- The SDK ---- */

static int succeeded(const char* what, tarvo_result result) {
  if (result != TARVO_OK) fprintf(stderr, "tracker: %s: %s\n", what, tarvo_result_text(result));
  return result == TARVO_OK;
}

/* The SDK tells a lot; the last line before an end is worth a look. */
static void log_line(void* user, const char* line, size_t length) {
  (void)user;
  (void)length;
  if (strncmp(line, "Fatal error", 11) == 0) fprintf(stderr, "%s\n", line);
}

static void on_locations(void* user, const tarvo_fix* fixes, size_t count) {
  (void)fixes;
  *(size_t*)user += count; /* this runs on one thread of the SDK; main looks after the work has ended */
}

static int set_up(const char* home, const char* backend, const char* client, const char* key) {
  char info[512];
  const int length =
      snprintf(info, sizeof info,
               "{\"TarvoClientID\": \"%s\", \"TarvoApiKey\": \"%s\", \"CFBundleIdentifier\": \"com.example.tracker\"}",
               client, key);
  return length > 0 && (size_t)length < sizeof info && succeeded("log", tarvo_set_log(log_line, NULL, NULL)) &&
         succeeded("home", tarvo_set_home(home)) && succeeded("info", tarvo_set_info(info)) &&
         succeeded("backend", tarvo_set_server(backend, 0));
}

/* Starts with the first fix, by whose time the clock is set. */
static tarvo_sdk* start(double time, const char* secret, size_t* told) {
  tarvo_sdk* sdk = NULL;
  tarvo_callbacks callbacks;
  memset(&callbacks, 0, sizeof callbacks);
  callbacks.size = sizeof callbacks;
  callbacks.user = told;
  callbacks.locations = on_locations;
  if (!succeeded("clock", tarvo_set_manual_clock(time)) || !succeeded("start", tarvo_sdk_new(&sdk))) return NULL;
  if (succeeded("callbacks", tarvo_set_callbacks(sdk, &callbacks)) &&
      succeeded("secret", tarvo_set_api_key_secret(sdk, secret)) &&
      succeeded("activate", tarvo_activate(sdk, TARVO_BACKEND_BACKGROUND)))
    return sdk;
  tarvo_sdk_free(sdk);
  return NULL;
}

/* Gives each fix its time, and the SDK as long as it needs for it. */
static int feed(tarvo_sdk* sdk, const tarvo_fix* fix) {
  return succeeded("clock", tarvo_move_clock(fix->time)) && succeeded("deliver", tarvo_deliver(fix, 1)) &&
         succeeded("wait", tarvo_wait_until_idle(sdk, 60));
}

/* A new device's channel is free 180 s after its first try; then everything leaves. */
static int upload(tarvo_sdk* sdk) {
  tarvo_flush_result ended = TARVO_FLUSH_DELIVERED;
  if (!succeeded("clock", tarvo_move_clock(tarvo_now() + 180))) return 0;
  if (tarvo_flush(sdk, 30, &ended) == TARVO_OK) return 1;
  fprintf(stderr, "tracker: not everything was uploaded (%d)\n", (int)ended);
  return 0;
}

static int print_history(tarvo_sdk* sdk) {
  tarvo_history* history = NULL;
  char* json = NULL;
  int printed = 0;
  const double open = strtod("nan", NULL); /* no bound */
  if (!succeeded("history", tarvo_get_history(sdk, TARVO_FORMAT_RAW, open, open, &history))) return 0;
  if (succeeded("GeoJSON", tarvo_history_geojson(history, TARVO_LINESTRING, &json, NULL))) printed = puts(json) >= 0;
  tarvo_free(json);
  tarvo_history_unref(history);
  return printed;
}

static int track(FILE* recording, const char* secret) {
  char line[256];
  tarvo_fix fix;
  tarvo_sdk* sdk = NULL;
  size_t fixes = 0, told = 0;
  int well = 1;
  while (well && fgets(line, sizeof line, recording) != NULL) {
    if (!read_line(line, &fix)) continue;
    if (sdk == NULL && (sdk = start(fix.time, secret, &told)) == NULL) return 0;
    well = feed(sdk, &fix);
    ++fixes;
  }
  if (sdk == NULL) fprintf(stderr, "tracker: no fix in the recording\n");
  well = sdk != NULL && well && upload(sdk) && print_history(sdk);
  tarvo_sdk_free(sdk);
  fprintf(stderr, "tracker: %lu fixes fed, told of %lu\n", (unsigned long)fixes, (unsigned long)told);
  return well;
}

int main(int argc, char** argv) {
  FILE* recording;
  int well;
  if (argc != 4 && argc != 7) {
    fprintf(stderr, "usage: tracker HOME BACKEND RECORDING [CLIENT-ID API-KEY API-SECRET]\n");
    return 2;
  }
  recording = fopen(argv[3], "r");
  if (recording == NULL) {
    perror(argv[3]);
    return 2;
  }
  well = set_up(argv[1], argv[2], argc == 7 ? argv[4] : "demo", argc == 7 ? argv[5] : "demo-key") &&
         track(recording, argc == 7 ? argv[6] : "demo-secret");
  fclose(recording);
  tarvo_set_log(NULL, NULL, NULL);
  if (tarvo_live_objects() != 0) fprintf(stderr, "tracker: something was not given back\n");
  return well ? 0 : 1;
}

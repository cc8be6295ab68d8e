/* What a caller can get wrong, and records of other versions. */
#include <float.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Check.h"

static void each(void* user, const char* geojson) { (void)user, (void)geojson; }

void test_mistakes(void) {
  tarvo_sdk *sdk = NULL, *second = NULL;
  tarvo_history* history = NULL;
  tarvo_trip* trip = NULL;
  char* text = NULL;
  tarvo_fix fix;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_home(NULL));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_home(""));
  EXPECT(TARVO_BAD_JSON, tarvo_set_info("{\"TarvoApiKey\":"));
  EXPECT(TARVO_BAD_JSON, tarvo_set_info("[1]"));
  EXPECT(TARVO_BAD_JSON, tarvo_set_info("{\"TarvoApiKey\":\"\xff\"}"));
  EXPECT(TARVO_REFUSED, tarvo_set_server("http://backend.example/api", 0));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_server("https://\xc0\xaf.example", 0));
  EXPECT(TARVO_ABSENT, tarvo_move_clock(0));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_manual_clock(unbounded));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_sdk_new(NULL));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_activate(NULL, 4));
  EXPECT(TARVO_BAD_HANDLE, tarvo_activate((tarvo_sdk*)&fix, 4));
  sdk = new_sdk();
  EXPECT(TARVO_ALREADY, tarvo_sdk_new(&second));
  EXPECT(TARVO_TOO_LATE, tarvo_set_home("/elsewhere"));
  EXPECT(TARVO_TOO_LATE, tarvo_set_server("https://backend.example/api", 0));
  EXPECT(TARVO_OK, tarvo_set_server("http://127.0.0.1:9/api", 0));
  EXPECT(TARVO_TOO_LATE, tarvo_set_manual_clock(0));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_deliver(NULL, 1));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_deliver(&fix, SIZE_MAX));
  EXPECT(TARVO_OK, tarvo_deliver(NULL, 0));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_report_failure(7));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_permission((tarvo_permission)5));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_app_state((tarvo_app_state)-1));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_battery(TARVO_BATTERY_FULL, unbounded));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_battery((tarvo_battery)4, 1));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_wait_until_idle(sdk, unbounded));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_flush(sdk, -1, NULL));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_get_history(sdk, TARVO_FORMAT_RAW, INFINITY, 0, &history));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_get_history(sdk, (tarvo_format)3, 0, 0, &history));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_get_history(sdk, TARVO_FORMAT_RAW, 0, 0, NULL));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_tag(sdk, "name", "\xed\xa0\x80"));
  EXPECT(TARVO_BAD_JSON, tarvo_set_subscription(sdk, "name", "{"));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_points_of_interest(sdk, NULL, NULL));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_probe(sdk, NULL, NULL, NULL));
  EXPECT(TARVO_ABSENT, tarvo_background_events(sdk, "another", NULL, NULL, NULL));
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_get_value(sdk, (tarvo_value)999, &text));
  EXPECT(TARVO_BAD_HANDLE, tarvo_history_geojson((tarvo_history*)sdk, TARVO_LINESTRING, &text, NULL));
  /* Nothing there yet; a bound that no calendar has is no fault. */
  EXPECT(TARVO_ABSENT, tarvo_current_location(sdk, &fix));
  EXPECT(TARVO_OK, tarvo_set_active_mode(sdk, TARVO_BACKEND_BACKGROUND));
  EXPECT(TARVO_ABSENT, tarvo_get_history(sdk, TARVO_FORMAT_RAW, -DBL_MAX, DBL_MAX, &history));
  EXPECT(TARVO_ABSENT, tarvo_points_of_interest(sdk, each, NULL));
  EXPECT(TARVO_ABSENT, tarvo_next_trip(sdk, &trip));
  EXPECT(TARVO_OK, tarvo_set_active_mode(sdk, TARVO_DEACTIVATED));
  CHECK(history == NULL && trip == NULL && text == NULL && second == NULL);
  tarvo_sdk_free(sdk);
  tarvo_sdk_free(sdk);
  EXPECT(TARVO_BAD_HANDLE, tarvo_activate(sdk, 4));
  EXPECT(TARVO_OK, tarvo_sdk_new(&second));
  CHECK(second != sdk);
  EXPECT(TARVO_BAD_HANDLE, tarvo_activate(sdk, 4));
  tarvo_sdk_free(second);
}

void test_sizes(void) {
  tarvo_sdk* sdk = new_sdk();
  struct {
    tarvo_delivery_options known;
    unsigned char later[16];
  } newer;
  tarvo_delivery_options older;
  tarvo_sync_status status;
  size_t i;
  static const size_t none[] = {0, 7, sizeof(size_t) + 2, 5000,
                                (size_t)-1}; /* the third ends in the midst of a member */
  for (i = 0; i < sizeof none / sizeof *none; ++i) {
    newer.known.size = status.size = none[i];
    EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_delivery_options(sdk, &newer.known));
    EXPECT(TARVO_BAD_ARGUMENT, tarvo_get_sync_status(sdk, &status));
  }
  memset(&newer, 0xee, sizeof newer);
  newer.known.size = sizeof newer;
  EXPECT(TARVO_OK, tarvo_get_delivery_options(sdk, &newer.known));
  CHECK(newer.known.size == sizeof newer && newer.later[0] == 0 && newer.later[15] == 0);
  CHECK(newer.known.drops_protocol_breaks == 1 && newer.known.has_metered_bytes_per_day == 0);
  newer.known.confirmed = 1;
  newer.known.least_pass_interval = 2.5;
  EXPECT(TARVO_OK, tarvo_set_delivery_options(sdk, &newer.known));
  newer.later[3] = 1;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_delivery_options(sdk, &newer.known));
  /* A caller of a time when there was only the interval leaves the rest alone, and is left alone beyond it. */
  memset(&older, 0xee, sizeof older);
  older.size = offsetof(tarvo_delivery_options, confirmed);
  older.least_pass_interval = 7;
  EXPECT(TARVO_OK, tarvo_set_delivery_options(sdk, &older));
  EXPECT(TARVO_OK, tarvo_get_delivery_options(sdk, &newer.known));
  CHECK(newer.known.confirmed == 1 && newer.known.least_pass_interval == 7);
  older.least_pass_interval = 0;
  EXPECT(TARVO_OK, tarvo_get_delivery_options(sdk, &older));
  CHECK(older.least_pass_interval == 7 && older.confirmed == (int32_t)0xeeeeeeee);
  older.least_pass_interval = -1;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_delivery_options(sdk, &older));
  tarvo_sdk_free(sdk);
}

void test_values(void) {
  static const struct {
    tarvo_value value;
    const char* text;
    tarvo_result result;
  } rows[] = {{TARVO_API_KEY, "k\xc3\xa9y \"1\"", TARVO_OK},
              {TARVO_CLIENT_ID, "a/b", TARVO_REFUSED},
              {TARVO_CLIENT_ID, "unit-7", TARVO_OK},
              {TARVO_BUNDLE_ID, "com.example.unit", TARVO_OK},
              {TARVO_DEVICE_TOKEN, "t0ken", TARVO_OK},
              {TARVO_TOKEN_SENT, "true", TARVO_OK},
              {TARVO_TOKEN_SENT, "1", TARVO_BAD_JSON},
              {TARVO_SET_TAGS_LIST, "{\"a\":\"b\",\"c\":\"\"}", TARVO_OK},
              {TARVO_SET_TAGS_LIST, "{\"a\":1}", TARVO_BAD_JSON},
              {TARVO_UNSET_TAGS_LIST, "[\"b\",\"a\"]", TARVO_OK},
              {TARVO_UNSET_TAGS_LIST, "{}", TARVO_BAD_JSON},
              {TARVO_SUBSCRIPTION_LIST, "{\"s\":\"{}\"}", TARVO_OK},
              {TARVO_UNSUBSCRIPTION_LIST, "[\"x\",\"y\"]", TARVO_OK},
              {TARVO_IDENTIFIER_FOR_VENDOR, "no uuid", TARVO_REFUSED},
              {TARVO_IDENTIFIER_FOR_VENDOR, "0E984725-C51C-4BF4-9960-E1C80E27ABA0", TARVO_OK},
              {TARVO_USER_UUID, "u", TARVO_BAD_ARGUMENT},
              {TARVO_BACKGROUND_SESSION_ID, "s", TARVO_BAD_ARGUMENT}};
  tarvo_sdk* sdk = new_sdk();
  tarvo_storage_limits limits;
  char* text;
  size_t i;
  for (i = 0; i < sizeof rows / sizeof *rows; ++i) {
    expect(rows[i].result, tarvo_set_value(sdk, rows[i].value, rows[i].text), rows[i].text, (int)i);
    if (rows[i].result != TARVO_OK) continue;
    text = NULL;
    EXPECT(TARVO_OK, tarvo_get_value(sdk, rows[i].value, &text));
    check(text != NULL && strcmp(text, rows[i].text) == 0, rows[i].text, (int)i);
    tarvo_free(text);
  }
  EXPECT(TARVO_ABSENT, tarvo_get_value(sdk, TARVO_USER_UUID, &text));
  EXPECT(TARVO_OK, tarvo_set_setting(sdk, "tarvologlevel", "{\"deep\":[1,2.5,null]}"));
  EXPECT(TARVO_OK, tarvo_get_setting(sdk, "tarvologlevel", &text));
  CHECK(strcmp(text, "{\"deep\":[1,2.5,null]}") == 0);
  tarvo_free(text);
  EXPECT(TARVO_OK, tarvo_set_setting(sdk, "tarvologlevel", NULL));
  EXPECT(TARVO_ABSENT, tarvo_get_setting(sdk, "tarvologlevel", &text));
  memset(&limits, 0, sizeof limits);
  limits.size = sizeof limits;
  limits.position_age = 3600;
  limits.log_bytes = 1000000;
  EXPECT(TARVO_OK, tarvo_set_storage_limits(sdk, &limits));
  memset(&limits, 0xee, sizeof limits);
  limits.size = sizeof limits;
  EXPECT(TARVO_OK, tarvo_get_storage_limits(sdk, &limits));
  CHECK(limits.position_age == 3600 && limits.log_age == 0 && limits.store_bytes == 0 && limits.log_bytes == 1000000);
  tarvo_sdk_free(sdk);
}

void test_pushes(void) {
  static const char ours[] = "{\"messageFrom\":\"tarvo\"}";
  tarvo_sdk* sdk = new_sdk();
  tarvo_delivery_options options;
  const tarvo_fix fix = fix_at(0);
  EXPECT(TARVO_BAD_JSON, tarvo_push_received(sdk, "tarvo"));
  EXPECT(TARVO_ABSENT, tarvo_push_received(sdk, "{\"messageFrom\":7}"));
  EXPECT(TARVO_OK, tarvo_push_received(sdk, ours));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_BACKEND_BACKGROUND));
  EXPECT(TARVO_TOO_EARLY, tarvo_push_received(sdk, ours));
  memset(&options, 0, sizeof options); /* the breaks stop the process again, and still this one does not */
  options.size = sizeof options;
  EXPECT(TARVO_OK, tarvo_set_delivery_options(sdk, &options));
  EXPECT(TARVO_TOO_EARLY, tarvo_push_received(sdk, ours));
  EXPECT(TARVO_OK, tarvo_deliver(&fix, 1));
  tarvo_wait_until_idle(sdk, 10);
  EXPECT(TARVO_OK, tarvo_push_received(sdk, ours));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  tarvo_wait_until_idle(sdk, 10);
  tarvo_sdk_free(sdk);
}

void test_fork(void) {
  tarvo_sdk* sdk = new_sdk();
  int status = 0;
  pid_t child;
  store_positions(sdk, 2);
  child = fork();
  if (child == 0) {
    const tarvo_fix fix = fix_at(3);
    const int told = tarvo_activate(sdk, 4) == TARVO_FORKED && tarvo_deliver(&fix, 1) == TARVO_FORKED &&
                     tarvo_wait_until_idle(sdk, 1) == TARVO_FORKED && tarvo_main_fd() == -1;
    tarvo_sdk_free(sdk);
    _exit(told ? 0 : 1);
  }
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  tarvo_sdk_free(sdk);
}

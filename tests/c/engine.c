/* The engine behind the facade, in any mode, and records that are made and copied. */
#include <string.h>

#include <tarvo-c/engine.h>

#include "Check.h"

static int matched;
static void on_matched(void* user, tarvo_history* history) {
  tarvo_past_trip trip;
  (void)user;
  trip.size = sizeof trip;
  EXPECT(TARVO_OK, tarvo_history_trip(history, 0, &trip));
  matched = (int)trip.id;
}

static void test_records(void) {
  static const char* const route =
      "{\"features\":[{\"type\":\"Feature\",\"geometry\":{\"type\":\"LineString\",\"coordinates\":[[11,48],[12,49]]}}]"
      "}";
  tarvo_trip_info info = {0}, read = {0};
  tarvo_trip* trip = NULL;
  tarvo_fix fix, other;
  char* json = NULL;
  double metres = 0;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_trip_new(&info, NULL, NULL, &trip)); /* no size */
  info.size = read.size = sizeof info;
  info.id = 7;
  info.start_name = "home";
  info.probability = unbounded;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_trip_new(&info, NULL, NULL, &trip));
  info.probability = 0.5;
  EXPECT(TARVO_BAD_JSON, tarvo_trip_new(&info, "[]", NULL, &trip));
  EXPECT(TARVO_OK, tarvo_trip_new(&info, NULL, route, &trip));
  EXPECT(TARVO_OK, tarvo_trip_get(trip, &read));
  CHECK(read.id == 7 && read.probability == 0.5 && strcmp(read.start_name, "home") == 0 && *read.arrival_name == 0);
  EXPECT(TARVO_OK, tarvo_trip_coordinates(trip, &json));
  CHECK(strcmp(json, "[[11,48],[12,49]]") == 0);
  tarvo_free(json);
  tarvo_trip_unref(trip);
  fix = fix_at(0), other = fix_at(1000);
  EXPECT(TARVO_OK, tarvo_distance(&fix, &other, &metres));
  CHECK(metres > 111100 && metres < 111300);
  fix.latitude = unbounded;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_distance(&fix, &other, &metres));
}

void test_engine(void) {
  tarvo_sdk* sdk = new_sdk();
  tarvo_history *history = NULL, *empty = NULL;
  tarvo_cursor *cursor = NULL, *copy = NULL;
  tarvo_callbacks callbacks = {0};
  tarvo_position position, same;
  tarvo_permission before = TARVO_DENIED;
  tarvo_fix last;
  char* text = NULL;
  int i;
  test_records();
  EXPECT(TARVO_TOO_EARLY, tarvo_engine_refresh(sdk));
  EXPECT(TARVO_ABSENT, tarvo_engine_last_location(sdk, &last));
  EXPECT(TARVO_ABSENT, tarvo_engine_last_trip(sdk, &empty));
  EXPECT(TARVO_OK, tarvo_engine_history(sdk, TARVO_FORMAT_RAW, unbounded, unbounded, &empty));
  store_positions(sdk, 300);
  EXPECT(TARVO_OK, tarvo_engine_last_location(sdk, &last));
  CHECK(last.time == fix_at(299).time && tarvo_history_positions(empty) == 0);
  EXPECT(TARVO_OK, tarvo_engine_ask(sdk, TARVO_LOCAL_BACKGROUND, &before));
  CHECK(before == TARVO_AUTHORIZED_ALWAYS);
  EXPECT(TARVO_OK, tarvo_engine_stop(sdk));
  EXPECT(TARVO_OK, tarvo_get_value(sdk, TARVO_STARTED, &text));
  CHECK(strcmp(text, "false") == 0);
  tarvo_free(text);
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_value(sdk, TARVO_STARTED, "true")); /* the engine's own */

  /* A copy reads on where the first stood, between pieces and within one. */
  EXPECT(TARVO_OK, tarvo_engine_history(sdk, TARVO_FORMAT_RAW, unbounded, unbounded, &history));
  EXPECT(TARVO_OK, tarvo_history_read(history, &cursor));
  position.size = same.size = sizeof position;
  for (i = 0; i < 300; ++i) {
    EXPECT(TARVO_OK, tarvo_cursor_copy(cursor, &copy));
    EXPECT(TARVO_OK, tarvo_cursor_next(cursor, &position));
    EXPECT(TARVO_OK, tarvo_cursor_next(copy, &same));
    CHECK(same.index == i && position.index == i);
    tarvo_cursor_free(copy);
  }
  tarvo_cursor_free(cursor);
  tarvo_history_unref(history);
  tarvo_history_unref(empty);

  callbacks.size = sizeof callbacks;
  callbacks.route_matched = on_matched;
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, &callbacks));
  EXPECT(TARVO_OK, tarvo_request_route_match(sdk));
  EXPECT(TARVO_BAD_JSON, tarvo_engine_add_trips(sdk, "[{\"pasttrip_id\":\"one\"}]"));
  EXPECT(TARVO_BAD_JSON, tarvo_engine_add_places(sdk, "{}"));
  EXPECT(TARVO_OK, tarvo_engine_add_trips(sdk, "[{\"pasttrip_id\":41},{\"pasttrip_id\":40}]"));
  EXPECT(TARVO_OK, tarvo_engine_add_places(sdk, "[{\"poi_id\":5,\"lat\":48,\"lon\":11}]"));
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
  CHECK(matched == 41);
  EXPECT(TARVO_OK, tarvo_engine_places(sdk, &text));
  CHECK(strstr(text, "\"poi_id\":5") != NULL);
  tarvo_free(text);
  EXPECT(TARVO_OK, tarvo_engine_remove_places(sdk));
  EXPECT(TARVO_OK, tarvo_engine_places(sdk, &text));
  CHECK(strcmp(text, "[]") == 0);
  tarvo_free(text);
  EXPECT(TARVO_ABSENT, tarvo_engine_check_user(sdk, &text));
  tarvo_sdk_free(sdk);
}

/* Histories read in pieces, by several threads, beyond the life of what they came from. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "Check.h"

enum { kPositions = 600 };

static tarvo_history* history_of(tarvo_sdk* sdk) {
  tarvo_history* history = NULL;
  EXPECT(TARVO_OK, tarvo_get_history(sdk, TARVO_FORMAT_RAW, unbounded, unbounded, &history));
  return history;
}

/* Reads all; says how many came in order, whole. */
static int read_all(tarvo_history* history) {
  tarvo_cursor* cursor = NULL;
  tarvo_position position;
  int read = 0;
  const uint64_t wanted = TARVO_HAS_LATITUDE | TARVO_HAS_LONGITUDE | TARVO_HAS_FIX_TIME | TARVO_HAS_INDEX;
  position.size = sizeof position;
  EXPECT(TARVO_OK, tarvo_history_read(history, &cursor));
  while (tarvo_cursor_next(cursor, &position) == TARVO_OK) {
    const int step = (int)position.index;
    if ((position.has & wanted) == wanted && step == read && position.fix_time == 1.7e9 + step &&
        position.latitude == 48 + 0.001 * step && strcmp(position.service_action, "loc_changed") == 0)
      ++read;
  }
  EXPECT(TARVO_ABSENT, tarvo_cursor_next(cursor, &position));
  tarvo_cursor_free(cursor);
  EXPECT(TARVO_BAD_HANDLE, tarvo_cursor_next(cursor, &position));
  return read;
}

void test_history(void) {
  tarvo_sdk* sdk = new_sdk();
  tarvo_history* history;
  tarvo_cursor* cursor = NULL;
  tarvo_past_trip trip;
  tarvo_bounds bounds;
  tarvo_sync_status status;
  struct {
    tarvo_position known;
    unsigned char later[8];
  } newer;
  char* json = NULL;
  size_t length = 0;
  double latitude = 0, longitude = 0;
  store_positions(sdk, kPositions);
  history = history_of(sdk);
  CHECK(tarvo_history_positions(history) == kPositions && tarvo_history_trips(history) == 0);
  CHECK(read_all(history) == kPositions);
  trip.size = sizeof trip;
  EXPECT(TARVO_ABSENT, tarvo_history_trip(history, 0, &trip));
  EXPECT(TARVO_OK, tarvo_history_bounds(history, &bounds));
  CHECK(bounds.south == 48 && bounds.west == 11 && bounds.north == 48 + 0.001 * (kPositions - 1) && bounds.east == 11);
  EXPECT(TARVO_OK, tarvo_history_first(history, &latitude, &longitude));
  CHECK(latitude == 48 && longitude == 11);
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_history_geojson(history, (tarvo_geometry)2, &json, NULL));
  EXPECT(TARVO_OK, tarvo_history_geojson(history, TARVO_MULTIPOINT, &json, &length));
  CHECK(strlen(json) == length && strstr(json, "\"MultiPoint\"") != NULL);
  tarvo_free(json);
  status.size = sizeof status;
  EXPECT(TARVO_OK, tarvo_get_sync_status(sdk, &status));
  CHECK(status.stored == kPositions && status.unsent == kPositions && status.last_index == kPositions - 1);
  EXPECT(TARVO_OK, tarvo_health(sdk, &json));
  CHECK(strstr(json, "\"fixes_received\":600,") != NULL && strstr(json, "\"silence_seconds\":0,\"store_") != NULL &&
        strstr(json, "\"gaps\":[") != NULL);
  tarvo_free(json);
  /* A cursor holds its history; a newer caller gets zeros; nothing is left of the handle. */
  EXPECT(TARVO_OK, tarvo_history_read(history, &cursor));
  CHECK(tarvo_history_ref(history) == history);
  tarvo_history_unref(history);
  tarvo_history_unref(history);
  CHECK(tarvo_history_positions(history) == 0 && tarvo_history_ref(history) == NULL);
  EXPECT(TARVO_BAD_HANDLE, tarvo_history_read(history, &cursor));
  memset(&newer, 0xee, sizeof newer);
  newer.known.size = sizeof newer;
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  tarvo_sdk_free(sdk);
  EXPECT(TARVO_OK, tarvo_cursor_next(cursor, &newer.known));
  CHECK(newer.known.index == 0 && newer.later[7] == 0 && newer.known.size == sizeof newer);
  tarvo_cursor_free(cursor);
}

static void* reader(void* of) {
  tarvo_history* history = tarvo_history_ref(of);
  int i;
  for (i = 0; i < 5; ++i) CHECK(read_all(history) == kPositions);
  tarvo_history_unref(history);
  return NULL;
}

void test_threads(void) {
  tarvo_sdk* sdk = new_sdk();
  tarvo_history* history;
  pthread_t threads[4];
  int i;
  store_positions(sdk, kPositions);
  history = history_of(sdk);
  for (i = 0; i < 4; ++i) CHECK(pthread_create(&threads[i], NULL, reader, history) == 0);
  for (i = kPositions; i < kPositions + 50; ++i) { /* a history stays what it was */
    const tarvo_fix fix = fix_at(i);
    EXPECT(TARVO_OK, tarvo_deliver(&fix, 1));
  }
  for (i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
  tarvo_history_unref(history);
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
  tarvo_sdk_free(sdk);
}

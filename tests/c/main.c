/* usage: test_c CASE: runs one case; the names are those of the functions in Check.h. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Check.h"

static int failures;
double unbounded;

void check(int holds, const char* text, int line) {
  if (holds) return;
  fprintf(stderr, "line %d: %s\n", line, text);
  ++failures;
}

void expect(tarvo_result expected, tarvo_result result, const char* text, int line) {
  if (expected == result) return;
  fprintf(stderr, "line %d: %s gives %d (%s), not %d\n", line, text, (int)result, tarvo_result_text(result),
          (int)expected);
  ++failures;
}

static void drop(void* user, const char* line, size_t length) { (void)user, (void)line, (void)length; }

tarvo_sdk* new_sdk(void) {
  tarvo_sdk* sdk = NULL;
  EXPECT(TARVO_OK, tarvo_set_log(drop, NULL, NULL));
  EXPECT(TARVO_OK, tarvo_set_home(getenv("TARVO_TEST_HOME")));
  EXPECT(TARVO_OK, tarvo_set_info("{\"TarvoClientID\":\"client\",\"TarvoApiKey\":\"key\"}"));
  EXPECT(TARVO_OK, tarvo_set_server("http://127.0.0.1:9/api", 0));
  EXPECT(TARVO_OK, tarvo_sdk_new(&sdk));
  return sdk;
}

tarvo_fix fix_at(int step) {
  tarvo_fix fix;
  tarvo_fix_init(&fix);
  fix.latitude = 48 + 0.001 * step;
  fix.longitude = 11;
  fix.horizontal_accuracy = 5;
  fix.time = 1.7e9 + step;
  return fix;
}

void store_positions(tarvo_sdk* sdk, int count) {
  int i;
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_LOCAL_BACKGROUND));
  for (i = 0; i < count; ++i) {
    const tarvo_fix fix = fix_at(i);
    EXPECT(TARVO_OK, tarvo_deliver(&fix, 1));
  }
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
}

int main(int argc, char** argv) {
  static const struct {
    const char* name;
    void (*run)(void);
  } cases[] = {{"mistakes", test_mistakes},
               {"sizes", test_sizes},
               {"values", test_values},
               {"pushes", test_pushes},
               {"callbacks", test_callbacks},
               {"receiver", test_receiver},
               {"main_queue", test_main_queue},
               {"log", test_log},
               {"fork", test_fork},
               {"engine", test_engine},
               {"history", test_history},
               {"threads", test_threads}};
  size_t i;
  char home[] = "/tmp/tarvo-c-XXXXXX", remove[64];
  if (argc != 2 || mkdtemp(home) == NULL || setenv("TARVO_TEST_HOME", home, 1) != 0) return 2;
  unbounded = nan("");
  snprintf(remove, sizeof remove, "rm -rf %s", home);
  for (i = 0; i < sizeof cases / sizeof *cases; ++i) {
    if (strcmp(cases[i].name, argv[1]) != 0) continue;
    cases[i].run();
    tarvo_set_log(NULL, NULL, NULL);
    CHECK(tarvo_live_objects() == 0);
    return system(remove) != 0 || failures > 0;
  }
  return 2;
}

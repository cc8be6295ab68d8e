/* What the host is told, and when its functions are let go. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "Check.h"

/* What became of a table; written by threads of the SDK, read after the work has ended. */
struct table {
  tarvo_sdk* sdk;
  const tarvo_callbacks* next; /* takes its place inside a call */
  int frees, calls, released, after_release, fixes, starts, stops, prompts, alerts;
};

static void released(void* user) {
  struct table* table = user;
  ++table->released;
  /* Here too nothing may wait; and the SDK may be gone by then. */
  CHECK(tarvo_wait_until_idle(table->sdk, 1) < 0);
}

static void noted(struct table* table) {
  ++table->calls;
  if (table->released) ++table->after_release;
}

static void on_locations(void* user, const tarvo_fix* fixes, size_t count) {
  struct table* table = user;
  tarvo_history* history = NULL;
  (void)fixes;
  noted(table);
  table->fixes += (int)count;
  EXPECT(TARVO_IN_CALLBACK, tarvo_wait_until_idle(table->sdk, 1));
  EXPECT(TARVO_IN_CALLBACK, tarvo_erase_everything(table->sdk));
  EXPECT(TARVO_IN_CALLBACK, tarvo_flush(table->sdk, 1, NULL));
  EXPECT(TARVO_WRONG_THREAD, tarvo_main_run_pending(NULL));
  if (tarvo_get_history(table->sdk, TARVO_FORMAT_RAW, unbounded, unbounded, &history) == TARVO_OK)
    tarvo_history_unref(history);
  if (table->next != NULL) EXPECT(TARVO_OK, tarvo_set_callbacks(table->sdk, table->next));
  if (table->frees) tarvo_sdk_free(table->sdk);
  CHECK(table->released == 0);
}

static tarvo_callbacks functions_of(struct table* table) {
  tarvo_callbacks functions;
  memset(&functions, 0, sizeof functions);
  functions.size = sizeof functions;
  functions.user = table;
  functions.released = released;
  functions.locations = on_locations;
  return functions;
}

static void deliver(tarvo_sdk* sdk, int step) {
  const tarvo_fix fix = fix_at(step);
  EXPECT(TARVO_OK, tarvo_deliver(&fix, 1));
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
}

void test_callbacks(void) {
  tarvo_sdk* sdk = new_sdk();
  struct table first = {0}, second = {0}, third = {0};
  tarvo_callbacks functions = functions_of(&first), others = functions_of(&second), last = functions_of(&third);
  first.sdk = second.sdk = third.sdk = sdk;
  functions.size = 3;
  EXPECT(TARVO_BAD_ARGUMENT, tarvo_set_callbacks(sdk, &functions));
  CHECK(first.released == 0);
  functions.size = sizeof functions;
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, &functions));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_LOCAL_BACKGROUND));
  deliver(sdk, 0);
  CHECK(first.fixes == 1 && first.released == 0);
  first.next = &others; /* replaced from inside: released once that call has returned */
  deliver(sdk, 1);
  CHECK(first.fixes == 2 && first.released == 1 && second.calls == 0);
  deliver(sdk, 2);
  CHECK(second.fixes == 1 && second.released == 0);
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, &last)); /* from outside: at once */
  CHECK(second.released == 1);
  third.frees = 1; /* the SDK itself, from inside */
  {
    const tarvo_fix fix = fix_at(3);
    tarvo_sdk* again = NULL;
    EXPECT(TARVO_OK, tarvo_deliver(&fix, 1));
    while (tarvo_sdk_new(&again) == TARVO_ALREADY) {
    }
    deliver(again, 4);
    EXPECT(TARVO_OK, tarvo_activate(again, TARVO_DEACTIVATED));
    tarvo_sdk_free(again);
  }
  CHECK(first.released == 1 && second.released == 1 && third.released == 1);
  CHECK(first.calls == 2 && second.calls == 1 && third.calls == 1);
  CHECK(first.after_release + second.after_release + third.after_release == 0);
}

static void start_receiver(void* user, double accuracy) {
  noted(user);
  CHECK(accuracy >= -1);
  ++((struct table*)user)->starts;
}
static void stop_receiver(void* user) {
  noted(user);
  ++((struct table*)user)->stops;
}

void test_receiver(void) {
  tarvo_sdk* sdk = new_sdk();
  struct table table = {0};
  tarvo_callbacks functions = functions_of(&table);
  table.sdk = sdk;
  functions.locations = NULL;
  functions.receiver_start = start_receiver;
  functions.receiver_stop = stop_receiver;
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, &functions));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_LOCAL_BACKGROUND));
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
  CHECK(table.starts >= 1 && table.stops == 0 && table.released == 0);
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, NULL));
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
  CHECK(table.stops == 1 && table.released == 1 && table.after_release == 0);
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  tarvo_sdk_free(sdk);
}

static void prompt(void* user, tarvo_permission_request request) {
  noted(user);
  CHECK(request == TARVO_ASK_ALWAYS);
  ++((struct table*)user)->prompts;
  EXPECT(TARVO_OK, tarvo_set_permission(TARVO_DENIED));
}

static int present(void* user, tarvo_alert* alert) {
  const char *title = NULL, *message = NULL;
  int is_cancel = 0;
  size_t actions = 0;
  noted(user);
  ++((struct table*)user)->alerts;
  EXPECT(TARVO_OK, tarvo_alert_texts(alert, &title, &message));
  while (tarvo_alert_action(alert, actions, &title, &is_cancel) == TARVO_OK) ++actions;
  CHECK(actions == 2);
  EXPECT(TARVO_ABSENT, tarvo_alert_choose(alert, 9));
  EXPECT(TARVO_OK, tarvo_alert_choose(alert, 0));
  EXPECT(TARVO_ALREADY, tarvo_alert_choose(alert, 0));
  return 1;
}

static void count(void* user) { ++*(int*)user; }

void test_main_queue(void) {
  tarvo_sdk* sdk = new_sdk();
  struct table table = {0}, later = {0};
  tarvo_callbacks functions = functions_of(&table), others = functions_of(&later);
  int answered = 0, answers_released = 0;
  size_t run = 0;
  table.sdk = later.sdk = sdk;
  functions.prompt = others.prompt = prompt;
  functions.present_alert = present;
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, &functions));
  EXPECT(TARVO_OK, tarvo_set_permission(TARVO_NOT_DETERMINED));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_LOCAL_BACKGROUND));
  CHECK(table.prompts == 0 && tarvo_main_fd() >= 0);
  EXPECT(TARVO_OK, tarvo_main_run_pending(&run));
  CHECK(run > 0 && table.prompts == 1 && tarvo_get_permission() == TARVO_DENIED);
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_LOCAL_BACKGROUND)); /* denied: an alert leads to the settings */
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
  CHECK(table.alerts >= 1);
  EXPECT(TARVO_OK, tarvo_probe(sdk, count, &answered, count));
  EXPECT(TARVO_OK, tarvo_wait_until_idle(sdk, 60));
  CHECK(answered == 2); /* the answer, then its release */
  EXPECT(TARVO_OK, tarvo_set_callbacks(sdk, &others));
  EXPECT(TARVO_OK, tarvo_set_permission(TARVO_NOT_DETERMINED));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_LOCAL_BACKGROUND));
  EXPECT(TARVO_OK, tarvo_probe(sdk, count, &answers_released, count));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  tarvo_sdk_free(sdk); /* what still waits on the main queue is not called any more */
  CHECK(later.released == 1 && answers_released == 1 && table.released == 1);
  EXPECT(TARVO_OK, tarvo_main_run_pending(NULL));
  CHECK(later.prompts == 0 && answers_released == 1 && later.after_release + table.after_release == 0);
}

static void log_line(void* user, const char* line, size_t length) {
  int* counts = user;
  CHECK(strlen(line) == length);
  EXPECT(TARVO_IN_CALLBACK, tarvo_main_run_pending(NULL));
  EXPECT(TARVO_IN_CALLBACK, tarvo_set_log(NULL, NULL, NULL));
  CHECK(counts[1] == 0);
  ++counts[0];
}
static void log_released(void* user) { ++((int*)user)[1]; }

void test_log(void) {
  int counts[2] = {0, 0};
  tarvo_sdk* sdk = new_sdk();
  EXPECT(TARVO_OK, tarvo_set_log(log_line, counts, log_released));
  EXPECT(TARVO_OK, tarvo_activate(sdk, TARVO_DEACTIVATED));
  EXPECT(TARVO_OK, tarvo_set_device_token(sdk, "token"));
  EXPECT(TARVO_OK, tarvo_set_log(NULL, NULL, NULL));
  CHECK(counts[0] > 0 && counts[1] == 1);
  tarvo_sdk_free(sdk);
}

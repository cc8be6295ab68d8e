#ifndef TARVO_TESTS_C_CHECK_H
#define TARVO_TESTS_C_CHECK_H

#include <tarvo-c/tarvo.h>

/* Says what does not hold, and goes on. */
void check(int holds, const char* text, int line);
#define CHECK(condition) check((condition) != 0, #condition, __LINE__)
/* A call and the result that it has to give. */
void expect(tarvo_result expected, tarvo_result result, const char* text, int line);
#define EXPECT(result, call) expect((result), (call), #call, __LINE__)

/* The SDK on a home of this process's own, with a backend where nobody listens; the log goes nowhere. */
tarvo_sdk* new_sdk(void);
/* Activates on the device alone and stores positions a good way apart: as many as fixes were given. */
void store_positions(tarvo_sdk* sdk, int count);
tarvo_fix fix_at(int step);
extern double unbounded; /* NaN */

/* The cases; each runs in a process of its own. */
void test_mistakes(void);
void test_sizes(void);
void test_values(void);
void test_pushes(void);
void test_callbacks(void);
void test_receiver(void);
void test_main_queue(void);
void test_log(void);
void test_fork(void);
void test_engine(void);
void test_history(void);
void test_threads(void);

#endif

/* What the C test programs share: an expectation that counts failures, a
   check of a failed call's status and message, and for GTK hosts (included
   after the toolkit) a deadline and a ready counter the GTK loop waits on.
   Single-threaded except where a comment says otherwise. */
#ifndef QS_TESTS_C_TEST_SUPPORT_H
#define QS_TESTS_C_TEST_SUPPORT_H

#include <stdio.h>
#include <string.h>

#include "quarrystone.h"

static int failures __attribute__((unused)) = 0;

#define EXPECT(condition)                                                      \
  do {                                                                         \
    if (!(condition)) {                                                        \
      fprintf(stderr, "%s:%d: expected %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                              \
    }                                                                          \
  } while (0)

/* The call failed with `status` and the thread's message contains `needle`. */
static inline int failed_with(qs_status_t got, qs_status_t status, const char* needle) {
  if (got == status && strstr(qs_last_error_message(), needle) != NULL) return 1;
  fprintf(stderr, "got %d \"%s\", wanted %d with \"%s\"\n", (int)got, qs_last_error_message(),
          (int)status, needle);
  return 0;
}

#ifdef GTK_MAJOR_VERSION
/* Ready callbacks so far; written on the library's network thread, read on
   the GTK thread. */
static volatile gint ready_count = 0;

static inline void on_ready(void* user_data, const qs_header_t* headers, size_t count) {
  (void)user_data, (void)headers, (void)count;
  g_atomic_int_inc(&ready_count);
  g_main_context_wakeup(NULL);
}

static inline gboolean on_deadline(gpointer late) {
  *(gboolean*)late = TRUE;
  return G_SOURCE_REMOVE;
}

/* Runs GTK's loop until *counter exceeds `after` or the deadline passed. */
static inline int wait_for(volatile gint* counter, gint after, const gboolean* late) {
  while (g_atomic_int_get(counter) <= after && !*late) g_main_context_iteration(NULL, TRUE);
  return g_atomic_int_get(counter) > after;
}
#endif

#endif

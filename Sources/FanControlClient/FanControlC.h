/* The companion's end of the channel for C, and for languages that call C: a client and a lease
 * keeper, as in FanControlClient.h and LeaseKeeper.h. No function throws. Texts are UTF-8. The
 * caller owns every returned object and frees it with its _free function, which accepts NULL. No
 * other argument may be NULL unless its function says so. */
#pragma once

#include <stdint.h>

#if defined(__cplusplus)
extern "C" {
#endif
#pragma GCC visibility push(default)
/* NOLINTBEGIN(readability-identifier-naming): the names of C */

typedef enum quorvane_result {
  QUORVANE_DONE = 0,
  QUORVANE_REFUSED = 1,     /* the helper refused: quorvane_client_text() has the reason */
  QUORVANE_UNREACHABLE = 3, /* no reply; the connection is closed: the text has the reason */
  QUORVANE_FAILED = 4       /* this process is out of memory or threads; no text */
} quorvane_result;

/* One call at a time, from one thread at a time. A call blocks for up to ten seconds. */
typedef struct quorvane_client quorvane_client;

/* Returns a client that is not connected yet, or NULL if memory is short. */
quorvane_client* quorvane_client_new(void);
void quorvane_client_free(quorvane_client* client);

/* Connects and passes the admission. Must be called again after QUORVANE_UNREACHABLE. */
quorvane_result quorvane_client_connect(quorvane_client* client);
/* Writes F0Md to F9Md (0 automatic, 1 forced) or F0Tg to F9Tg (rpm). */
quorvane_result quorvane_client_write(quorvane_client* client, const char* key, int64_t value,
                                      int is_float);
/* Restores the fans of all clients. */
quorvane_result quorvane_client_restore_auto(quorvane_client* client);
quorvane_result quorvane_client_ping(quorvane_client* client);
quorvane_result quorvane_client_status(quorvane_client* client);

/* Returns the text of the last call: a refusal, a failure or the answer to a ping; otherwise
 * empty. Owned by the client; valid until its next call. */
const char* quorvane_client_text(const quorvane_client* client);
/* Returns an entry of the last status, for example "forcedFans", or NULL if there is none. Owned
 * by the client; valid until its next quorvane_client_status(). */
const char* quorvane_client_status_value(const quorvane_client* client, const char* key);

/* May be used from any thread. */
typedef struct quorvane_keeper quorvane_keeper;

/* What happened to a fan; the last four end its hold. */
typedef enum quorvane_fan_event {
  QUORVANE_FAN_FORCED = 0,      /* the helper acknowledged the speed; again after UNREACHABLE */
  QUORVANE_FAN_UNREACHABLE = 1, /* the keeper retries while the lease may still run */
  QUORVANE_FAN_GIVEN_BACK = 2,  /* as asked */
  QUORVANE_FAN_PERIOD_OVER = 3, /* the longest manual period ends */
  QUORVANE_FAN_TAKEN_BACK = 4,  /* by lease, cap, another client or the helper's restart */
  QUORVANE_FAN_REFUSED = 5      /* by the helper, or a new hold could not reach it */
} quorvane_fan_event;

/* Called on the keeper's thread. `text` is one line for a person, valid during the call; empty
 * for QUORVANE_FAN_FORCED. The handler may call hold and release, but not free. */
typedef void (*quorvane_fan_handler)(void* context, int fan, quorvane_fan_event event,
                                     const char* text);

/* Passes `context`, which may be NULL, to the handler. Returns NULL if memory or threads are
 * short. */
quorvane_keeper* quorvane_keeper_new(quorvane_fan_handler handler, void* context);
/* Gives back the held fans. Blocks for up to half a minute if the helper hangs. The handler is
 * not called after the return. */
void quorvane_keeper_free(quorvane_keeper* keeper);
/* Asks to force a fan (0 to 9) to a speed in rpm, or to change its speed. Returns DONE or FAILED
 * immediately; the handler reports what happens. */
quorvane_result quorvane_keeper_hold(quorvane_keeper* keeper, int fan, int64_t rpm);
/* Asks to put one fan into automatic mode; returns as hold does. */
quorvane_result quorvane_keeper_release(quorvane_keeper* keeper, int fan);

/* NOLINTEND(readability-identifier-naming) */
#pragma GCC visibility pop
#if defined(__cplusplus)
}
#endif

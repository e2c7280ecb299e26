/* The companion's end of the channel for C, and for languages that call C: a client and a lease
 * keeper, as FanControlClient.h and LeaseKeeper.h have them. No exception leaves a function. Texts
 * are UTF-8. Every object handed out is the caller's, to be freed by the function named so; NULL
 * may be freed. No other argument may be NULL unless its function says so. */
#pragma once

#include <stdint.h>

#if defined(__cplusplus)
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef enum quorvane_result {
  QUORVANE_DONE = 0,
  QUORVANE_REFUSED = 1,     /* the helper said no: quorvane_client_text() tells why */
  QUORVANE_UNREACHABLE = 3, /* no answer, and the connection is over: the text tells why */
  QUORVANE_FAILED = 4       /* out of memory or threads on our side; there may be no text */
} quorvane_result;

/* One call at a time, from one thread at a time. A call may block for ten seconds. */
typedef struct quorvane_client quorvane_client;

/* Not yet connected. NULL without memory. */
quorvane_client* quorvane_client_new(void);
void quorvane_client_free(quorvane_client* client);

/* Connects and is admitted. After QUORVANE_UNREACHABLE it is to be called again. */
quorvane_result quorvane_client_connect(quorvane_client* client);
/* Key: F0Md to F9Md (0 automatic, 1 forced) or F0Tg to F9Tg (rpm). */
quorvane_result quorvane_client_write(quorvane_client* client, const char* key, int64_t value,
                                      int is_float);
/* Takes their fans from all clients. */
quorvane_result quorvane_client_restore_auto(quorvane_client* client);
quorvane_result quorvane_client_ping(quorvane_client* client);
quorvane_result quorvane_client_status(quorvane_client* client);

/* The last call's text: a refusal, a failure, the answer to a ping; else empty. The client's, until
 * its next call. */
const char* quorvane_client_text(const quorvane_client* client);
/* One entry of the last status, for example "forcedFans"; NULL if there is none. The client's,
 * until its next call of quorvane_client_status(). */
const char* quorvane_client_status_value(const quorvane_client* client, const char* key);

/* Usable from any thread. */
typedef struct quorvane_keeper quorvane_keeper;

/* What has become of a fan; the last four end its hold. */
typedef enum quorvane_fan_event {
  QUORVANE_FAN_FORCED = 0,      /* the speed is acknowledged; after UNREACHABLE, once more */
  QUORVANE_FAN_UNREACHABLE = 1, /* the keeper tries again for as long as the lease may last */
  QUORVANE_FAN_GIVEN_BACK = 2,  /* as asked */
  QUORVANE_FAN_PERIOD_OVER = 3, /* at the end of the longest manual period */
  QUORVANE_FAN_TAKEN_BACK = 4,  /* by lease, cap, another client or the helper's restart */
  QUORVANE_FAN_REFUSED = 5      /* by the helper, or it could not be reached to begin with */
} quorvane_fan_event;

/* Called on the keeper's thread. `text` is a line for a person, valid during the call; empty for
 * QUORVANE_FAN_FORCED. It may call hold and release, but not free. */
typedef void (*quorvane_fan_handler)(void* context, int fan, quorvane_fan_event event,
                                     const char* text);

/* `context` is passed on as it is, and may be NULL. NULL without memory or threads. */
quorvane_keeper* quorvane_keeper_new(quorvane_fan_handler handler, void* context);
/* Gives back what is held. Blocks for up to half a minute when the helper hangs. The handler is not
 * called any more when it has returned. */
void quorvane_keeper_free(quorvane_keeper* keeper);
/* Asks to force a fan (0 to 9) to a speed in rpm, or to change its speed; returns at once: DONE or
 * FAILED. The handler hears what became of it. */
quorvane_result quorvane_keeper_hold(quorvane_keeper* keeper, int fan, int64_t rpm);
/* Asks to put one fan under automatic control; returns as hold does. */
quorvane_result quorvane_keeper_release(quorvane_keeper* keeper, int fan);

#pragma GCC visibility pop
#if defined(__cplusplus)
}
#endif

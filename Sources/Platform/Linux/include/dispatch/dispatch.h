// The libdispatch calls that the helper uses, with the signatures of macOS's <dispatch/dispatch.h>
// in C++ and with libdispatch's contracts. The conformance tests check both implementations.
#pragma once

#include <stdint.h>

/// The base of all reference-counted dispatch objects. Polymorphic, so that a call that takes any
/// object can distinguish a queue from a source.
struct dispatch_object_s {
 protected:
  dispatch_object_s() = default;
  virtual ~dispatch_object_s() = default;
};
typedef dispatch_object_s* dispatch_object_t;

struct dispatch_queue_s : public dispatch_object_s {};
struct dispatch_queue_main_s : public dispatch_queue_s {};
struct dispatch_queue_attr_s : public dispatch_object_s {};
struct dispatch_source_s : public dispatch_object_s {};
typedef dispatch_queue_s* dispatch_queue_t;
typedef dispatch_queue_main_s* dispatch_queue_main_t;
typedef dispatch_queue_attr_s* dispatch_queue_attr_t;
typedef dispatch_source_s* dispatch_source_t;
typedef const struct dispatch_source_type_s* dispatch_source_type_t;

typedef void (*dispatch_function_t)(void*);
/// A time on the default clock, in nanoseconds. Opaque, except for the two constants below.
typedef uint64_t dispatch_time_t;

#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)
#define NSEC_PER_SEC 1000000000ull
#define DISPATCH_QUEUE_SERIAL nullptr
#define DISPATCH_SOURCE_TYPE_TIMER (&_dispatch_source_type_timer)
#define DISPATCH_SOURCE_TYPE_SIGNAL (&_dispatch_source_type_signal)

extern "C" {

extern const struct dispatch_source_type_s _dispatch_source_type_timer;
extern const struct dispatch_source_type_s _dispatch_source_type_signal;

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attributes);
void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
dispatch_queue_main_t dispatch_get_main_queue(void);
[[noreturn]] void dispatch_main(void);

/// Creates a suspended source. `handle` is the signal number of a signal source, 0 for a timer.
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t mask, dispatch_queue_t queue);
/// Makes the timer fire once. REQUIRES: the source is still suspended, and `interval` is
/// DISPATCH_TIME_FOREVER.
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t leeway);
void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler);
/// Cancels the source. On the source's queue this is final: the handler does not run afterwards,
/// even if it was already due.
void dispatch_source_cancel(dispatch_source_t source);

void dispatch_set_context(dispatch_object_t object, void* context);
/// Sets a function that runs once, with the context on the source's queue, after the last reference
/// is gone and no handler runs.
void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer);
void dispatch_suspend(dispatch_object_t object);
void dispatch_resume(dispatch_object_t object);
void dispatch_release(dispatch_object_t object);

/// Returns the time `delta` nanoseconds after `when`.
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);

}  // extern "C"

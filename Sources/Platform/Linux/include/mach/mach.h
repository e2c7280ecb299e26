// The few Mach names that the helper uses, with the types of macOS's <mach/mach.h>.
#pragma once

typedef unsigned int mach_port_t;
typedef mach_port_t task_port_t;
typedef int kern_return_t;

#define KERN_SUCCESS 0

/// Linux has no task ports. Any value will do, because nothing reads it.
#define mach_task_self() (static_cast<mach_port_t>(0x103))

// The few Mach names that the helper uses, with the types of macOS's <mach/mach.h>.
#pragma once

typedef unsigned int mach_port_t;
typedef mach_port_t task_port_t;
typedef int kern_return_t;

#define KERN_SUCCESS 0

/// There are no tasks to name here: any value will do, and nothing looks at it.
#define mach_task_self() (static_cast<mach_port_t>(0x103))

// The IOKit calls that the helper uses, with the signatures and constants of macOS's
// <IOKit/IOKitLib.h> and <IOKit/IOReturn.h>, over IOKitRegistry.h. Callable from any thread.
#pragma once

#include <mach/mach.h>
#include <stddef.h>
#include <stdint.h>

typedef struct __CFDictionary* CFMutableDictionaryRef;
typedef const struct __CFDictionary* CFDictionaryRef;

typedef mach_port_t io_object_t;
typedef io_object_t io_service_t;
typedef io_object_t io_connect_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;
typedef char io_name_t[128];

#define kIOReturnError (static_cast<int>(0xE00002BCu))
#define kIOReturnNoDevice (static_cast<int>(0xE00002C0u))
#define kIOReturnNotPrivileged (static_cast<int>(0xE00002C1u))
#define kIOReturnBadArgument (static_cast<int>(0xE00002C2u))
#define kIOReturnNotOpen (static_cast<int>(0xE00002CDu))
#define kIOReturnTimeout (static_cast<int>(0xE00002D6u))
#define kIOReturnNotFound (static_cast<int>(0xE00002F0u))

extern "C" {

extern const mach_port_t kIOMainPortDefault;

CFMutableDictionaryRef IOServiceMatching(const char* name);
/// Consumes `matching`, also on failure.
kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching,
                                           io_iterator_t* existing);
/// Returns the next object, or 0 at the end. The caller releases the object.
io_object_t IOIteratorNext(io_iterator_t iterator);
kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name);
kern_return_t IOServiceOpen(io_service_t service, task_port_t owningTask, uint32_t type,
                            io_connect_t* connect);
kern_return_t IOObjectRelease(io_object_t object);
kern_return_t IOServiceClose(io_connect_t connect);
/// `*outputStructCnt` is the capacity of `outputStruct` on entry, the bytes written on return.
kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                        const void* inputStruct, size_t inputStructCnt,
                                        void* outputStruct, size_t* outputStructCnt);

}  // extern "C"

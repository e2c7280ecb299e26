// The IOKit calls that the helper uses, declared from macOS's documentation.
#pragma once

#include <mach/mach.h>
#include <stddef.h>
#include <stdint.h>

typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;

typedef kern_return_t IOReturn;
typedef mach_port_t io_object_t;
typedef io_object_t io_connect_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;
typedef io_object_t io_service_t;
typedef char io_name_t[128];

#define iokit_common_err(code) (static_cast<IOReturn>(0xE0000000u | (code)))
#define kIOReturnError iokit_common_err(0x2BC)
#define kIOReturnNoDevice iokit_common_err(0x2C0)
#define kIOReturnNotPrivileged iokit_common_err(0x2C1)
#define kIOReturnBadArgument iokit_common_err(0x2C2)
#define kIOReturnNotOpen iokit_common_err(0x2CD)
#define kIOReturnTimeout iokit_common_err(0x2D6)
#define kIOReturnNotFound iokit_common_err(0x2F0)

extern "C" {

extern const mach_port_t kIOMainPortDefault;

kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                        const void* inputStruct, size_t inputStructCnt,
                                        void* outputStruct, size_t* outputStructCnt);
io_object_t IOIteratorNext(io_iterator_t iterator);
kern_return_t IOObjectRelease(io_object_t object);
kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name);
kern_return_t IOServiceClose(io_connect_t connect);
kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching,
                                           io_iterator_t* existing);
CFMutableDictionaryRef IOServiceMatching(const char* name);
kern_return_t IOServiceOpen(io_service_t service, task_port_t owningTask, uint32_t type,
                            io_connect_t* connect);

}  // extern "C"

// SPDX-License-Identifier: Apache-2.0
//
// What the adapters use of I/O Kit.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

typedef int kern_return_t;
typedef uint32_t mach_port_t;
typedef mach_port_t io_object_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;
typedef io_object_t io_service_t;
typedef uint32_t IOOptionBits;
typedef char io_name_t[128];
typedef int boolean_t;

#define KERN_SUCCESS 0
#define KERN_FAILURE 5
#define MACH_PORT_NULL 0
#define IO_OBJECT_NULL ((io_object_t)0)

enum { kIORegistryIterateRecursively = 0x00000001, kIORegistryIterateParents = 0x00000002 };

extern "C" {
kern_return_t IOMainPort(mach_port_t bootstrapPort, mach_port_t* mainPort);
kern_return_t IOObjectRelease(io_object_t object);
io_object_t IOIteratorNext(io_iterator_t iterator);
void IOIteratorReset(io_iterator_t iterator);
boolean_t IOIteratorIsValid(io_iterator_t iterator);
CFMutableDictionaryRef IOServiceMatching(const char* name);
kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching, io_iterator_t* existing);
kern_return_t IORegistryCreateIterator(mach_port_t mainPort, const io_name_t plane, IOOptionBits options,
                                       io_iterator_t* iterator);
kern_return_t IORegistryEntryGetRegistryEntryID(io_registry_entry_t entry, uint64_t* entryID);
CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits options);
kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry, CFMutableDictionaryRef* properties,
                                                CFAllocatorRef allocator, IOOptionBits options);
kern_return_t IORegistryEntryGetParentEntry(io_registry_entry_t entry, const io_name_t plane,
                                            io_registry_entry_t* parent);
CFStringRef IORegistryEntryCopyPath(io_registry_entry_t entry, const io_name_t plane);
}

// SPDX-License-Identifier: Apache-2.0
//
// What the adapters use of Disk Arbitration.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

typedef int kern_return_t;
typedef kern_return_t mach_error_t;
typedef mach_error_t DAReturn;

typedef struct __DASession* DASessionRef;
typedef struct __DADisk* DADiskRef;
typedef const struct __DADissenter* DADissenterRef;

typedef uint32_t DADiskMountOptions;
typedef uint32_t DADiskUnmountOptions;
enum { kDADiskMountOptionDefault = 0x00000000 };
enum { kDADiskUnmountOptionDefault = 0x00000000 };

typedef void (*DADiskMountCallback)(DADiskRef disk, DADissenterRef dissenter, void* context);
typedef void (*DADiskUnmountCallback)(DADiskRef disk, DADissenterRef dissenter, void* context);

extern "C" {
CFTypeID DASessionGetTypeID(void);
DASessionRef DASessionCreate(CFAllocatorRef allocator);
void DASessionScheduleWithRunLoop(DASessionRef session, CFRunLoopRef runLoop, CFStringRef runLoopMode);
void DASessionUnscheduleFromRunLoop(DASessionRef session, CFRunLoopRef runLoop, CFStringRef runLoopMode);

CFTypeID DADiskGetTypeID(void);
DADiskRef DADiskCreateFromBSDName(CFAllocatorRef allocator, DASessionRef session, const char* name);
DADiskRef DADiskCreateFromVolumePath(CFAllocatorRef allocator, DASessionRef session, CFURLRef path);
const char* DADiskGetBSDName(DADiskRef disk);
CFDictionaryRef DADiskCopyDescription(DADiskRef disk);
DADiskRef DADiskCopyWholeDisk(DADiskRef disk);
void DADiskMountWithArguments(DADiskRef disk, CFURLRef path, DADiskMountOptions options, DADiskMountCallback callback,
                              void* context, CFStringRef arguments[]);
void DADiskUnmount(DADiskRef disk, DADiskUnmountOptions options, DADiskUnmountCallback callback, void* context);

DAReturn DADissenterGetStatus(DADissenterRef dissenter);
CFStringRef DADissenterGetStatusString(DADissenterRef dissenter);
}

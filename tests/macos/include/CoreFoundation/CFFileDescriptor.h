// SPDX-License-Identifier: Apache-2.0
//
// Descriptors as sources of a run loop.
#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFRunLoop.h>

typedef int CFFileDescriptorNativeDescriptor;
typedef struct __CFFileDescriptor* CFFileDescriptorRef;
typedef void (*CFFileDescriptorCallBack)(CFFileDescriptorRef watched, CFOptionFlags types, void* info);

enum : CFOptionFlags { kCFFileDescriptorReadCallBack = 1UL << 0, kCFFileDescriptorWriteCallBack = 1UL << 1 };

typedef struct {
  CFIndex version;
  void* info;
  void* (*retain)(void* info);
  void (*release)(void* info);
  CFStringRef (*copyDescription)(void* info);
} CFFileDescriptorContext;

extern "C" {
CFFileDescriptorRef CFFileDescriptorCreate(CFAllocatorRef allocator, CFFileDescriptorNativeDescriptor descriptor,
                                           Boolean closeOnInvalidate, CFFileDescriptorCallBack callout,
                                           const CFFileDescriptorContext* context);
void CFFileDescriptorEnableCallBacks(CFFileDescriptorRef watched, CFOptionFlags types);
void CFFileDescriptorInvalidate(CFFileDescriptorRef watched);
CFRunLoopSourceRef CFFileDescriptorCreateRunLoopSource(CFAllocatorRef allocator, CFFileDescriptorRef watched,
                                                       CFIndex order);
}

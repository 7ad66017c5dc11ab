// SPDX-License-Identifier: Apache-2.0
//
// What the adapters use of the Security framework.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

typedef SInt32 OSStatus;
typedef struct __SecCode* SecCodeRef;
typedef struct __SecRequirement* SecRequirementRef;
typedef uint32_t SecCSFlags;

enum : SecCSFlags { kSecCSDefaultFlags = 0 };
enum : OSStatus {
  errSecSuccess = 0,
  errSecCSReqInvalid = -67052,
  errSecCSReqFailed = -67050,
  errSecCSNoSuchCode = -67065,
};

extern "C" {
extern const CFStringRef kSecGuestAttributePid;

OSStatus SecCodeCopyGuestWithAttributes(SecCodeRef host, CFDictionaryRef attributes, SecCSFlags flags,
                                        SecCodeRef* guest);
OSStatus SecCodeCheckValidity(SecCodeRef code, SecCSFlags flags, SecRequirementRef requirement);
OSStatus SecRequirementCreateWithStringAndErrors(CFStringRef text, SecCSFlags flags, CFErrorRef* errors,
                                                 SecRequirementRef* requirement);
}

// SPDX-License-Identifier: Apache-2.0
//
// Checks the declarations of the stand-ins. macos-run compiles this file against them and check-macos against the
// published headers, so both must declare the same.
#include <CoreFoundation/CoreFoundation.h>
#include <DiskArbitration/DiskArbitration.h>
#include <IOKit/IOBSD.h>
#include <IOKit/IOKitKeys.h>
#include <IOKit/IOKitLib.h>
#include <Security/Security.h>
#include <asl.h>
#include <copyfile.h>
#include <crt_externs.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/attr.h>
#include <sys/disk.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <string_view>
#include <type_traits>

namespace {

template <typename Function, typename Declared>
constexpr bool kIs = std::is_same_v<std::remove_pointer_t<Function>, Declared>;

// ------------------------------------------------------------------------------------------------ Disk Arbitration
static_assert(kIs<decltype(&DASessionCreate), DASessionRef(CFAllocatorRef)>);
static_assert(kIs<decltype(&DASessionScheduleWithRunLoop), void(DASessionRef, CFRunLoopRef, CFStringRef)>);
static_assert(kIs<decltype(&DASessionUnscheduleFromRunLoop), void(DASessionRef, CFRunLoopRef, CFStringRef)>);
static_assert(kIs<decltype(&DADiskCreateFromBSDName), DADiskRef(CFAllocatorRef, DASessionRef, const char*)>);
static_assert(kIs<decltype(&DADiskCreateFromVolumePath), DADiskRef(CFAllocatorRef, DASessionRef, CFURLRef)>);
static_assert(kIs<decltype(&DADiskGetBSDName), const char*(DADiskRef)>);
static_assert(kIs<decltype(&DADiskCopyDescription), CFDictionaryRef(DADiskRef)>);
static_assert(kIs<decltype(&DADiskCopyWholeDisk), DADiskRef(DADiskRef)>);
static_assert(kIs<decltype(&DADiskMountWithArguments),
                  void(DADiskRef, CFURLRef, DADiskMountOptions, DADiskMountCallback, void*, CFStringRef*)>);
static_assert(kIs<decltype(&DADiskUnmount), void(DADiskRef, DADiskUnmountOptions, DADiskUnmountCallback, void*)>);
static_assert(kIs<DADiskMountCallback, void(DADiskRef, DADissenterRef, void*)>);
static_assert(kIs<DADiskUnmountCallback, void(DADiskRef, DADissenterRef, void*)>);
static_assert(kIs<decltype(&DADissenterGetStatus), DAReturn(DADissenterRef)>);
static_assert(kIs<decltype(&DADissenterGetStatusString), CFStringRef(DADissenterRef)>);
static_assert(std::is_same_v<DAReturn, int>);
static_assert(kDADiskMountOptionDefault == 0 && kDADiskUnmountOptionDefault == 0);

// --------------------------------------------------------------------------------------------------------- I/O Kit
static_assert(kIs<decltype(&IOMainPort), kern_return_t(mach_port_t, mach_port_t*)>);
static_assert(kIs<decltype(&IOObjectRelease), kern_return_t(io_object_t)>);
static_assert(kIs<decltype(&IOIteratorNext), io_object_t(io_iterator_t)>);
static_assert(kIs<decltype(&IOIteratorReset), void(io_iterator_t)>);
static_assert(kIs<decltype(&IOIteratorIsValid), boolean_t(io_iterator_t)>);
static_assert(kIs<decltype(&IOServiceMatching), CFMutableDictionaryRef(const char*)>);
static_assert(
    kIs<decltype(&IOServiceGetMatchingServices), kern_return_t(mach_port_t, CFDictionaryRef, io_iterator_t*)>);
static_assert(
    kIs<decltype(&IORegistryCreateIterator), kern_return_t(mach_port_t, const char*, IOOptionBits, io_iterator_t*)>);
static_assert(kIs<decltype(&IORegistryEntryGetRegistryEntryID), kern_return_t(io_registry_entry_t, uint64_t*)>);
static_assert(kIs<decltype(&IORegistryEntryCreateCFProperty),
                  CFTypeRef(io_registry_entry_t, CFStringRef, CFAllocatorRef, IOOptionBits)>);
static_assert(kIs<decltype(&IORegistryEntryCreateCFProperties),
                  kern_return_t(io_registry_entry_t, CFMutableDictionaryRef*, CFAllocatorRef, IOOptionBits)>);
static_assert(kIs<decltype(&IORegistryEntryGetParentEntry),
                  kern_return_t(io_registry_entry_t, const char*, io_registry_entry_t*)>);
static_assert(kIs<decltype(&IORegistryEntryCopyPath), CFStringRef(io_registry_entry_t, const char*)>);
static_assert(sizeof(io_object_t) == 4 && sizeof(mach_port_t) == 4);
static_assert(kIORegistryIterateRecursively == 1 && KERN_SUCCESS == 0 && KERN_FAILURE == 5 && IO_OBJECT_NULL == 0);
static_assert(std::string_view(kIOBSDNameKey) == "BSD Name");
static_assert(std::string_view(kIOProviderClassKey) == "IOProviderClass");
static_assert(std::string_view(kIOPropertyMatchKey) == "IOPropertyMatch");

// -------------------------------------------------------------------------------------------------------- Security
static_assert(
    kIs<decltype(&SecCodeCopyGuestWithAttributes), OSStatus(SecCodeRef, CFDictionaryRef, SecCSFlags, SecCodeRef*)>);
static_assert(kIs<decltype(&SecCodeCheckValidity), OSStatus(SecCodeRef, SecCSFlags, SecRequirementRef)>);
static_assert(kIs<decltype(&SecRequirementCreateWithStringAndErrors),
                  OSStatus(CFStringRef, SecCSFlags, CFErrorRef*, SecRequirementRef*)>);
static_assert(kSecCSDefaultFlags == 0 && errSecSuccess == 0);
static_assert(errSecCSReqInvalid == -67052 && errSecCSReqFailed == -67050 && errSecCSNoSuchCode == -67065);

// ------------------------------------------------------------------------------------------------- Core Foundation
static_assert(kIs<decltype(&CFFileDescriptorCreate),
                  CFFileDescriptorRef(CFAllocatorRef, CFFileDescriptorNativeDescriptor, Boolean,
                                      CFFileDescriptorCallBack, const CFFileDescriptorContext*)>);
static_assert(kIs<CFFileDescriptorCallBack, void(CFFileDescriptorRef, CFOptionFlags, void*)>);
static_assert(kCFFileDescriptorReadCallBack == 1);

// ------------------------------------------------------------------------------------------------------ the C library
static_assert(O_SHLOCK == 0x10 && O_EXLOCK == 0x20 && F_NOCACHE == 48 && F_FULLFSYNC == 51);
static_assert(sizeof(dk_synchronize_t) == 24 && offsetof(dk_synchronize_t, options) == 16);
static_assert(ATTR_BIT_MAP_COUNT == 5 && ATTR_VOL_INFO == 0x80000000 && ATTR_VOL_NAME == 0x2000);
static_assert(sizeof(attrlist) == 24 && offsetof(attrlist, volattr) == 8 && sizeof(attrreference_t) == 8);
static_assert(MNT_LOCAL == 0x1000 && MNT_WAIT == 1 && MNT_NOWAIT == 2);
static_assert(sizeof(struct statfs) == 2168 && offsetof(struct statfs, f_mntfromname) == 1112);
static_assert(kIs<decltype(&getfsstat), int(struct statfs*, int, int)>);
static_assert(kIs<decltype(&getattrlist), int(const char*, void*, void*, size_t, unsigned int)>);
static_assert(POSIX_SPAWN_CLOEXEC_DEFAULT == 0x4000 && RENAME_EXCL == 4);
static_assert(kIs<decltype(&renamex_np), int(const char*, const char*, unsigned int)>);
static_assert(kIs<decltype(&devname), char*(dev_t, mode_t)>);
static_assert(kIs<decltype(&_NSGetEnviron), char***()>);
static_assert(std::is_same_v<decltype(stat::st_birthtimespec), struct timespec>);
static_assert(std::is_integral_v<fpos_t> && sizeof(fpos_t) == 8);
static_assert(ASL_LEVEL_WARNING == 4);
static_assert(kIs<decltype(&copyfile), int(const char*, const char*, copyfile_state_t, copyfile_flags_t)>);
static_assert(kIs<copyfile_callback_t, int(int, int, copyfile_state_t, const char*, const char*, void*)>);
static_assert(COPYFILE_ALL == 15 && COPYFILE_RECURSIVE == 1 << 15 && COPYFILE_EXCL == 1 << 17);
static_assert(COPYFILE_NOFOLLOW == (1 << 18 | 1 << 19) && COPYFILE_ERR == 3 && COPYFILE_QUIT == 2);
static_assert(COPYFILE_STATE_STATUS_CB == 6 && COPYFILE_STATE_STATUS_CTX == 7);

}  // namespace

// SPDX-License-Identifier: Apache-2.0
/// @file
/// The flat functions that take objects of the I/O registry. They have C++ linkage; their companions over plain data
/// stand in QDSDiskFunctions.h.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/IORegistry.h>

#include <cstddef>
#include <cstdint>
#include <memory>

/// Looks for services of the class "IOUserClientClass". No storage device is of that class, so on a usual machine
/// nothing is found; hosts that ask for ejectable media rely on that.
///
/// @param iterator  receives an iterator over what was found (it may be null where nothing was) when the result is 0;
///                  untouched otherwise. Null is allowed and counts as a failure to find anything.
/// @return the kernel return code, 0 for success. A failure is told on standard output; the code is 0 where only
///         `iterator` was null.
VORLIX_EXPORT int32_t MyFindEjectableMedia(std::shared_ptr<vorlix::RegistryIterator>* iterator);

/// The path of a service's device node: "/dev/" and its "BSD Name".
///
/// @param service  the service. The caller's reference stays the caller's; null has no path.
/// @param path     receives the NUL-terminated path. On failure it is empty, or "/dev/" where the name does not fit or
///                 is not plain ASCII. Null is a failure.
/// @param size     bytes at `path`.
/// @return 0 (kKernSuccess) or 5 (kKernFailure).
VORLIX_EXPORT int32_t MyGetDeviceFilePath(const std::shared_ptr<vorlix::RegistryEntry>& service, char* path,
                                          size_t size);

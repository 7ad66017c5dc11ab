// SPDX-License-Identifier: Apache-2.0
/// @file
/// Flat functions that take objects of the I/O registry. They have C++ linkage; the flat functions that take plain data
/// are in QDSDiskFunctions.h.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/IORegistry.h>

#include <cstddef>
#include <cstdint>
#include <memory>

/// Finds the services of the class "IOUserClientClass". No storage device is of that class, so on a usual machine the
/// function finds nothing. Hosts that look for ejectable media rely on that.
///
/// @param iterator  if the result is 0, receives an iterator over the services; it may be null if there are none.
///                  Otherwise it is unchanged. A null `iterator` is allowed and is reported as if nothing was found.
/// @return the kernel return code, 0 for success. A failure is printed on standard output. If only `iterator` was null,
///         the message is printed but the code is 0.
VORLIX_EXPORT int32_t MyFindEjectableMedia(std::shared_ptr<vorlix::RegistryIterator>* iterator);

/// Writes the path of a service's device node into a buffer: "/dev/" and the service's "BSD Name".
///
/// @param service  the service; the caller keeps its reference. The function fails if it is null.
/// @param path     receives the NUL-terminated path. On failure it is empty, or "/dev/" if the name does not fit or is
///                 not plain ASCII. The function fails if it is null.
/// @param size     size of the buffer at `path` in bytes.
/// @return 0 (kKernSuccess) or 5 (kKernFailure).
VORLIX_EXPORT int32_t MyGetDeviceFilePath(const std::shared_ptr<vorlix::RegistryEntry>& service, char* path,
                                          size_t size);

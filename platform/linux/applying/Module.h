// SPDX-License-Identifier: Apache-2.0
//
// What applying.so exports: applying an image of a WIM to an NTFS volume, as a plain function. No object of C++ and no
// exception goes from one binary to the other. The module lies in a folder with the library's major version in its
// name, so that both sides of the call come from one build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorlix {

enum class WimEnd : int { done, stopped, failed };

/// Where progress goes. `go` returns whether to go on.
struct WimProgress {
  void* context = nullptr;
  bool (*go)(void* context, uint64_t done, uint64_t total) = nullptr;
};

/// Applies image `index` of the file `wim` to the NTFS volume in the file or device `volume`.
/// @param reason  gets the reason for `failed`, ended by a NUL within `room` bytes.
using WimCall = WimEnd(const char* wim, int index, const char* volume, const WimProgress* progress, char* reason,
                       size_t room);

/// What the module exports: returns the call.
using WimCallEntry = WimCall*();

inline constexpr const char* kWimCallEntry = "vorlix_wim_call";

/// The call, which stays valid. @return null with a `reason` where the module cannot be loaded.
WimCall* wimCall(std::string& reason);

}  // namespace vorlix

// SPDX-License-Identifier: Apache-2.0
//
// What files are, by their first bytes.
#pragma once

#include <Vorlix/platform/Unpacking.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace vorlix {

/// How a file is packed; absent where it is not.
std::optional<PackedFormat> packingOf(std::span<const uint8_t> start);

/// The name of a format of images or archives that is not read: "qcow2 image". Empty for others. Taken for raw, the
/// bytes of such a file would replace a volume.
std::string foreignFormat(std::span<const uint8_t> start);

}  // namespace vorlix

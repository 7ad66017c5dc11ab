// SPDX-License-Identifier: Apache-2.0
/// @file
/// The former place of <Vorlix/FileManager.h>, for hosts that include it here.
#pragma once

#include <Vorlix/FileManager.h>  // IWYU pragma: export

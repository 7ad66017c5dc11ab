// SPDX-License-Identifier: Apache-2.0
//
// Core Foundation as it was built, and CFFileDescriptor, which it does not have on Linux.
#pragma once

#include_next <CoreFoundation/CoreFoundation.h>

#include <CoreFoundation/CFFileDescriptor.h>

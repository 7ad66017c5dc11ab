// SPDX-License-Identifier: Apache-2.0
//
// Core Foundation as it was built, and its file descriptors, which it leaves out on this system.
#pragma once

#include_next <CoreFoundation/CoreFoundation.h>

#include <CoreFoundation/CFFileDescriptor.h>

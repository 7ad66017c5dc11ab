// SPDX-License-Identifier: Apache-2.0
#pragma once

#define kIOBSDNameKey "BSD Name"

// SPDX-License-Identifier: Apache-2.0
#pragma once

#define kIOProviderClassKey "IOProviderClass"
#define kIOPropertyMatchKey "IOPropertyMatch"

/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * The library's version pair, as a number for comparisons and as a text that `what` and `strings` find in a binary.
 */
#ifndef VORLIX_VORLIX_VERS_H
#define VORLIX_VORLIX_VERS_H

#include <Vorlix/foundation/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The version as a number, major.minor. */
VORLIX_EXPORT extern const double VorlixVersionNumber;

/** The version as NUL-terminated text in the form that `what` looks for; it ends in a line feed. */
VORLIX_EXPORT extern const unsigned char VorlixVersionString[];

#ifdef __cplusplus
}
#endif

#endif

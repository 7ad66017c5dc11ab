/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * The library's version, as a number to compare and as a string that `what` and `strings` find in a binary.
 */
#ifndef VORLIX_VORLIX_VERS_H
#define VORLIX_VORLIX_VERS_H

#include <Vorlix/foundation/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The version as a number: major.minor. */
VORLIX_EXPORT extern const double VorlixVersionNumber;

/** The version as a NUL-terminated string in the form that `what` looks for. It ends in a line feed. */
VORLIX_EXPORT extern const unsigned char VorlixVersionString[];

#ifdef __cplusplus
}
#endif

#endif

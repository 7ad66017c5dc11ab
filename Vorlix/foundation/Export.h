/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * Marks what the library exports. Everything else is compiled with hidden visibility, so a symbol without this mark
 * cannot be reached through the shared library.
 */
#ifndef VORLIX_FOUNDATION_EXPORT_H
#define VORLIX_FOUNDATION_EXPORT_H

/// Marks what the shared library exports.
#define VORLIX_EXPORT __attribute__((visibility("default")))

#endif

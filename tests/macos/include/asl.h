// SPDX-License-Identifier: Apache-2.0
//
// The Apple System Log.
#pragma once

typedef struct __asl_object_s* asl_object_t;

#define ASL_LEVEL_WARNING 4

extern "C" int asl_log(asl_object_t client, asl_object_t message, int level, const char* format, ...)
    __attribute__((format(printf, 4, 5), deprecated("os_log(3) has replaced asl(3)")));

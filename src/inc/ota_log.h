// SPDX-License-Identifier: Apache-2.0
/**
 * Diagnostics of the library: four levels, each a macro with a printf format.
 *
 * A line reads "[OTA_<LEVEL>][<source file>:<line>] <message>". It goes to a standard stream first and
 * then to the system log. Errors and warnings go to stderr. Info and debug go to stdout after
 * "\r\x1b[K", which returns to column 0 and clears what a progress display left there; the system log
 * never gets that prefix. Debug lines always reach the system log, but stdout only at a debug level
 * above 0. A warning has the system log priority of an error.
 *
 * The message includes its newline. Arguments are evaluated twice: pass plain values.
 */
#ifndef OTA_LOG_H
#define OTA_LOG_H

#include <android/log.h>
#include <cstdint>
#include <cstdio>

/**
 * The debug level: 0, or the positive number in the environment variable OTA_DEBUG_FLAG.
 * The environment is read once per process.
 */
int32_t check_debug_level();

#define OTA_LOG_TEXT(number) #number
#define OTA_LOG_NUMBER(number) OTA_LOG_TEXT(number)
#define OTA_LOG_HEAD(level) "[OTA_" level "][" __FILE_NAME__ ":" OTA_LOG_NUMBER(__LINE__) "] "
#define OTA_LOG_CLEAR_LINE "\r\x1b[K"

#define OTA_LOG_STREAM(stream, ...) (void)std::fprintf(stream, __VA_ARGS__)
#define OTA_LOG_SYSTEM(priority, ...) (void)__android_log_print(priority, nullptr, __VA_ARGS__)

#define ota_log_error(...)                                                                                             \
    do {                                                                                                               \
        OTA_LOG_STREAM(stderr, OTA_LOG_HEAD("ERROR") __VA_ARGS__);                                                     \
        OTA_LOG_SYSTEM(ANDROID_LOG_ERROR, OTA_LOG_HEAD("ERROR") __VA_ARGS__);                                          \
    } while (0)

#define ota_log_warning(...)                                                                                           \
    do {                                                                                                               \
        OTA_LOG_STREAM(stderr, OTA_LOG_HEAD("WARNING") __VA_ARGS__);                                                   \
        OTA_LOG_SYSTEM(ANDROID_LOG_ERROR, OTA_LOG_HEAD("WARNING") __VA_ARGS__);                                        \
    } while (0)

#define ota_log_info(...)                                                                                              \
    do {                                                                                                               \
        OTA_LOG_STREAM(stdout, OTA_LOG_CLEAR_LINE OTA_LOG_HEAD("INFO") __VA_ARGS__);                                   \
        OTA_LOG_SYSTEM(ANDROID_LOG_INFO, OTA_LOG_HEAD("INFO") __VA_ARGS__);                                            \
    } while (0)

#define ota_log_debug(...)                                                                                             \
    do {                                                                                                               \
        if (check_debug_level() > 0) {                                                                                 \
            OTA_LOG_STREAM(stdout, OTA_LOG_CLEAR_LINE OTA_LOG_HEAD("DEBUG") __VA_ARGS__);                              \
        }                                                                                                              \
        OTA_LOG_SYSTEM(ANDROID_LOG_DEBUG, OTA_LOG_HEAD("DEBUG") __VA_ARGS__);                                          \
    } while (0)

#endif

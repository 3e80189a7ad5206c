/**
 * Diagnostics of the library: four levels, each a macro with a printf format.
 *
 * A line reads "[OTA_<LEVEL>][<source file>:<line>] <message>". It goes to a standard stream first and
 * then to the system log. Errors and warnings go to stderr. Info and debug go to stdout behind
 * "\r\x1b[K", which returns to column 0 and clears whatever a progress display left there; the
 * system log never gets that prefix. Debug reaches stdout only at a debug level above 0, and the
 * system log always. A warning has the system log priority of an error.
 *
 * The message carries its own line end. Arguments are evaluated twice: pass plain values.
 */
#ifndef OTA_LOG_H
#define OTA_LOG_H

#include <android/log.h>
#include <cstdint>
#include <cstdio>

/**
 * The debug level: 0, or the positive number in the environment variable OTA_DEBUG_FLAG.
 * The environment is read once in the life of the process.
 */
int32_t check_debug_level();

#define OTA_LOG_LINE(level, format) "[OTA_" level "][%s:%d] " format
#define OTA_LOG_CLEAR_LINE "\r\x1b[K"

#define OTA_LOG_STREAM(stream, prefix, level, format, ...)                                                             \
    (void)std::fprintf(stream, prefix OTA_LOG_LINE(level, format), __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define OTA_LOG_SYSTEM(priority, level, format, ...)                                                                   \
    (void)__android_log_print(priority, nullptr, OTA_LOG_LINE(level, format), __FILE_NAME__,                           \
                              __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define ota_log_error(format, ...)                                                                                     \
    do {                                                                                                               \
        OTA_LOG_STREAM(stderr, "", "ERROR", format, __VA_ARGS__);                                                      \
        OTA_LOG_SYSTEM(ANDROID_LOG_ERROR, "ERROR", format, __VA_ARGS__);                                               \
    } while (0)

#define ota_log_warning(format, ...)                                                                                   \
    do {                                                                                                               \
        OTA_LOG_STREAM(stderr, "", "WARNING", format, __VA_ARGS__);                                                    \
        OTA_LOG_SYSTEM(ANDROID_LOG_ERROR, "WARNING", format, __VA_ARGS__);                                             \
    } while (0)

#define ota_log_info(format, ...)                                                                                      \
    do {                                                                                                               \
        OTA_LOG_STREAM(stdout, OTA_LOG_CLEAR_LINE, "INFO", format, __VA_ARGS__);                                       \
        OTA_LOG_SYSTEM(ANDROID_LOG_INFO, "INFO", format, __VA_ARGS__);                                                 \
    } while (0)

#define ota_log_debug(format, ...)                                                                                     \
    do {                                                                                                               \
        if (check_debug_level() > 0) {                                                                                 \
            OTA_LOG_STREAM(stdout, OTA_LOG_CLEAR_LINE, "DEBUG", format, __VA_ARGS__);                                  \
        }                                                                                                              \
        OTA_LOG_SYSTEM(ANDROID_LOG_DEBUG, "DEBUG", format, __VA_ARGS__);                                               \
    } while (0)

#endif

// SPDX-License-Identifier: Apache-2.0
/** The part of Android's logging interface that tessera uses. On a desktop it writes to syslog. */
#ifndef ANDROID_LOG_H
#define ANDROID_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/** Priorities of an entry; the numbers are Android's. */
typedef enum android_LogPriority {
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
} android_LogPriority;

/**
 * Writes one entry to the system log, under the identity and facility that the program has chosen with
 * openlog(), or under its own name. The program's setlogmask() applies.
 * @param prio  an android_LogPriority
 * @param tag   written before the text; may be null
 * @return 1, even for an entry that the mask suppresses; a negative number when there is no system log
 */
__attribute__((visibility("default"), format(printf, 3, 4))) int __android_log_print(int prio, const char* tag,
                                                                                     const char* fmt, ...);

#ifdef __cplusplus
}
#endif

#endif

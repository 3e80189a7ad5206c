#include "android/log.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <syslog.h>
#include <unistd.h>

namespace {

int syslog_priority(int prio) {
    switch (prio) {
    case ANDROID_LOG_ERROR:
        return LOG_ERR;
    case ANDROID_LOG_WARN:
        return LOG_WARNING;
    case ANDROID_LOG_INFO:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

/**
 * Whether a daemon has been there to listen. Without one, every line would be put together and cost a
 * socket and a failed connection. It is looked for once in a tick of the clock, a few milliseconds: to
 * look for every line took as long as all the rest of sizing a large package.
 */
bool has_daemon() {
    thread_local timespec looked{-1, 0};
    thread_local bool found = false;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (!found && (now.tv_sec != looked.tv_sec || now.tv_nsec != looked.tv_nsec)) {
        looked = now;
        found = access(_PATH_LOG, F_OK) == 0;
    }
    return found;
}

} // namespace

/* Tells this library from a board's own: tessera board --check looks for the name. A function, because the
 * sanitizer refuses one variable in two libraries. */
extern "C" __attribute__((visibility("default"))) const char* tessera_stand_in() {
    return "log lines to syslog";
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    if (!has_daemon()) {
        return -1;
    }
    /* No openlog(): identity, facility and mask of the system log are the host program's. The entry is one
     * of its own, and its line begins with the library's tag. */
    va_list args;
    va_start(args, fmt);
    if (tag == nullptr) {
        vsyslog(syslog_priority(prio), fmt, args);
    } else {
        char text[1024];
        (void)std::vsnprintf(text, sizeof text, fmt, args);
        syslog(syslog_priority(prio), "%s: %s", tag, text);
    }
    va_end(args);
    return 1;
}

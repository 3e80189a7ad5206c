// SPDX-License-Identifier: Apache-2.0
#include "console/interrupt.h"

#include "console/failure.h"

#include <atomic>
#include <csignal>

namespace {

/* Any thread may handle the signal, and any may ask. */
std::atomic<bool> asked_to_end{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void ask_to_end(int /*signal*/) {
    asked_to_end = true;
}

} // namespace

void watch_interrupts() {
    struct sigaction action {};
    action.sa_handler = ask_to_end;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGHUP}) {
        struct sigaction before {};
        const bool is_ignored = sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN;
        if (!is_ignored) { /* as under nohup */
            (void)sigaction(signal, &action, nullptr);
        }
    }
    (void)sigaction(SIGTERM, &action, nullptr);
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    (void)sigprocmask(SIG_UNBLOCK, &terminate, nullptr);
}

bool is_interrupted() {
    return asked_to_end;
}

void stop_if_interrupted() {
    if (is_interrupted()) {
        throw Failure(ExitCode::interrupted, "interrupted");
    }
}

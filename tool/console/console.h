// SPDX-License-Identifier: Apache-2.0
/**
 * The streams of the command. The library logs on the process's own standard streams, so the command
 * takes those away from it at the start and keeps the real ones for itself: stdout carries results and
 * nothing else, stderr the command's own sentences and progress.
 */
#ifndef TOOL_CONSOLE_H
#define TOOL_CONSOLE_H

#include "console/failure.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace console {

/** Returns to column 0 and clears the line; the library's info lines begin with it too. */
inline constexpr std::string_view clear_line = "\r\x1b[K";

/** Takes the standard streams over. Called once, before any call of the library. */
void open();

/** From now on prints the library's log lines to stderr. */
void be_verbose();

/** From now on every line on stderr is one JSON object, except an explicitly requested progress bar. */
void speak_json();
bool speaks_json();

/** Gives the standard streams back. @return false when results could not be written */
bool close();

/** Prints to stdout. A missing line end is added. */
void print(const std::string& text);

/** Prints a remark to stderr, prefixed with the command's name. */
void note(const std::string& sentence);

/** Prints why the command ends. */
void report(const Failure& failure);

/** The stream for progress. */
std::FILE* progress_stream();

/** Passes the library's lines so far on to stderr, or drops them unless requested. */
void pass_log_on();

/** The same, and forgets the library's errors so far. */
void forget_errors();

/** The first error that the library logged since forget_errors(), else its first warning, prefixed with ": "; or "". */
std::string logged_cause();

} // namespace console

/**
 * Makes one call of the library. A negative result ends the verb with `sentence` and the first error
 * that the library logged for it.
 */
template <class Call>
auto require(ExitCode code, const std::string& sentence, Call call) {
    console::forget_errors();
    const auto result = call();
    if (result < 0) {
        throw Failure(code, sentence + console::logged_cause());
    }
    return result;
}

#endif

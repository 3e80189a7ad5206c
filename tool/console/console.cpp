// SPDX-License-Identifier: Apache-2.0
#include "console/console.h"

#include "console/json.h"
#include "console/text.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace console {

namespace {

constexpr std::string_view error_mark = "[OTA_ERROR]";
constexpr std::string_view warning_mark = "[OTA_WARNING]";

std::FILE* results = stdout;
std::FILE* sentences = stderr;
int log_fd = -1; /* a file in memory that collects what the library prints */
bool verbose = false;
bool json_lines = false;
std::string first_error;
std::string first_warning;

std::FILE* take_over(int fd) {
    const int kept = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    std::FILE* stream = kept >= 0 ? fdopen(kept, "w") : nullptr;
    return stream != nullptr ? stream : std::fopen("/dev/null", "we");
}

/** A line for stderr: as it is, or as the one member of an object. */
std::string line_of(const char* member, const std::string& prefix, const std::string& text) {
    return json_lines ? to_text(Json{{member, text}}) : prefix + text;
}

/** The message of a log line, which reads "[OTA_ERROR][file:line] message". */
std::string_view message_of(std::string_view line) {
    line.remove_prefix(line.find(']') + 1);
    const size_t end = line.find("] ");
    return end == std::string_view::npos ? line : line.substr(end + 2);
}

void take_line(std::string_view line) {
    if (line.starts_with(clear_line)) {
        line.remove_prefix(clear_line.size());
    }
    if (verbose && !line.empty()) {
        std::fprintf(sentences, "%s\n", line_of("log", "", std::string(line)).c_str());
    }
    if (first_error.empty() && line.starts_with(error_mark)) {
        first_error = message_of(line);
    }
    if (first_warning.empty() && line.starts_with(warning_mark)) {
        first_warning = message_of(line);
    }
}

Json to_json(const Failure& failure) {
    Json error = {{"code", static_cast<int>(failure.code)}, {"message", failure.what()}};
    if (!failure.hint.empty()) {
        error["hint"] = failure.hint;
    }
    if (!failure.state.empty()) {
        error["state"] = failure.state;
    }
    return {{"error", std::move(error)}};
}

} // namespace

void open() {
    results = take_over(STDOUT_FILENO);
    sentences = take_over(STDERR_FILENO);
    if (results == nullptr || sentences == nullptr) {
        _exit(static_cast<int>(ExitCode::failed));
    }
    log_fd = memfd_create("tessera-log", MFD_CLOEXEC);
    const int sink = log_fd >= 0 ? log_fd : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)fcntl(sink, F_SETFL, O_APPEND);
    (void)dup2(sink, STDOUT_FILENO);
    (void)dup2(sink, STDERR_FILENO);
}

void be_verbose() {
    verbose = true;
}

void speak_json() {
    json_lines = true;
}

bool speaks_json() {
    return json_lines;
}

bool close() {
    pass_log_on();
    (void)dup2(fileno(results), STDOUT_FILENO);
    (void)dup2(fileno(sentences), STDERR_FILENO);
    std::fflush(sentences);
    return std::fflush(results) == 0 && std::ferror(results) == 0;
}

void print(const std::string& text) {
    std::fputs(printable(text).c_str(), results);
    if (!text.ends_with('\n')) {
        std::fputc('\n', results);
    }
}

void note(const std::string& sentence) {
    pass_log_on();
    std::string line = printable(sentence);
    std::replace(line.begin(), line.end(), '\n', '?'); /* in a name from outside */
    std::fprintf(sentences, "%s\n", line_of("note", "tessera: ", line).c_str());
    std::fflush(sentences);
}

void report(const Failure& failure) {
    pass_log_on();
    std::fflush(results);
    if (json_lines) {
        std::fprintf(sentences, "%s\n", to_text(to_json(failure)).c_str());
        return;
    }
    note(failure.what());
    if (!failure.state.empty()) {
        note(failure.state);
    }
    if (!failure.hint.empty()) {
        std::fprintf(sentences, "hint: %s\n", failure.hint.c_str());
    }
}

std::FILE* progress_stream() {
    return sentences;
}

void pass_log_on() {
    std::fflush(stdout);
    if (log_fd < 0) {
        return;
    }
    std::string text;
    std::array<char, 4096> buffer;
    for (ssize_t got = 0; (got = pread(log_fd, buffer.data(), buffer.size(), static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer.data(), static_cast<size_t>(got));
    }
    if (ftruncate(log_fd, 0) != 0) {
        return; /* what stays there is taken the next time */
    }
    for (std::string_view rest = text; !rest.empty();) {
        const size_t end = rest.find('\n');
        take_line(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
}

void forget_errors() {
    pass_log_on();
    first_error.clear();
    first_warning.clear();
}

std::string logged_cause() {
    pass_log_on();
    const std::string& cause = first_error.empty() ? first_warning : first_error;
    return cause.empty() ? "" : ": " + cause;
}

} // namespace console

// SPDX-License-Identifier: Apache-2.0
#include "console/progress.h"

#include "console/console.h"
#include "console/json.h"
#include "console/text.h"

#include <algorithm>
#include <cmath>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto bar_interval = 100ms;
constexpr auto line_interval = 3s;
constexpr unsigned bar_width = 24;

Progress::Clock::duration interval(ProgressMode mode) {
    return mode == ProgressMode::plain ? Progress::Clock::duration(line_interval) : bar_interval;
}

std::string human_seconds(double seconds) {
    const auto whole = static_cast<unsigned long>(std::ceil(seconds));
    return whole < 60 ? format("%lu s", whole) : format("%lu:%02lu min", whole / 60, whole % 60);
}

std::string human_rate(double bytes_per_second) {
    return human_bytes(static_cast<uint64_t>(bytes_per_second)) + "/s";
}

} // namespace

ProgressMode default_progress_mode() {
    const bool has_room_for_bar = !console::speaks_json() && isatty(fileno(console::progress_stream())) == 1;
    return has_room_for_bar ? ProgressMode::bar : ProgressMode::plain;
}

Progress::~Progress() {
    if (visible_ && !finished_) {
        std::fputs(console::clear_line.data(), console::progress_stream());
        std::fflush(console::progress_stream()); /* the result follows on another stream */
    }
}

Progress::Work& Progress::find(std::string_view name) {
    const auto found = std::find_if(works_.begin(), works_.end(), [&](const Work& work) { return work.name == name; });
    if (found != works_.end()) {
        return *found;
    }
    works_.push_back({std::string(name)});
    return works_.back();
}

void Progress::expect(std::string_view work, uint64_t bytes) {
    find(work).total += bytes;
}

void Progress::spare(std::string_view work, uint64_t bytes) {
    Work& spared = find(work);
    spared.total -= std::min(bytes, spared.total - spared.done);
}

void Progress::begin(std::string_view phase, const std::string& subject) {
    phase_ = phase;
    subject_ = printable(subject);
    if (mode_ != ProgressMode::plain) {
        show();
    }
}

void Progress::store(uint64_t written, uint64_t unchanged) {
    written_ += written;
    unchanged_ += unchanged;
    advance("write", written + unchanged);
}

void Progress::advance(std::string_view work, uint64_t bytes) {
    Work& advanced = find(work);
    advanced.done += std::min(bytes, advanced.total - advanced.done);
    tick();
}

void Progress::tick() {
    if (Clock::now() - shown_ >= interval(mode_)) {
        show();
    }
}

uint64_t Progress::done() const {
    uint64_t sum = 0;
    for (const Work& work : works_) {
        sum += work.done;
    }
    return sum;
}

uint64_t Progress::total() const {
    uint64_t sum = 0;
    for (const Work& work : works_) {
        sum += work.total;
    }
    return sum;
}

unsigned Progress::percent() const {
    if (finished_) {
        return 100;
    }
    const uint64_t all = total();
    const uint64_t share = all == 0 ? 0 : std::min<uint64_t>(99, done() * 100 / all);
    return std::max(percent_, static_cast<unsigned>(share));
}

uint64_t Progress::verified_bytes() const {
    const auto found =
        std::find_if(works_.begin(), works_.end(), [](const Work& work) { return work.name == "verify"; });
    return found != works_.end() ? found->done : 0;
}

/** Bytes of all work per second, since the beginning. */
std::optional<double> Progress::rate() const {
    const double seconds = std::chrono::duration<double>(Clock::now() - begun_).count();
    return done() > 0 && seconds > 0 ? std::optional(static_cast<double>(done()) / seconds) : std::nullopt;
}

std::optional<double> Progress::seconds_left() const {
    const auto now = rate();
    return now ? std::optional(static_cast<double>(total() - done()) / *now) : std::nullopt;
}

void Progress::finish() {
    finished_ = true;
    phase_ = "done";
    subject_.clear();
    if (mode_ == ProgressMode::bar && visible_) {
        show();
        std::fputc('\n', console::progress_stream());
    } else if (mode_ == ProgressMode::json) {
        show();
    }
}

void Progress::show() {
    shown_ = Clock::now();
    percent_ = percent();
    switch (mode_) {
    case ProgressMode::none:
        return;
    case ProgressMode::bar:
        show_bar();
        break;
    case ProgressMode::plain:
        console::speaks_json() ? show_json() : show_line();
        break;
    case ProgressMode::json:
        show_json();
        break;
    }
    std::fflush(console::progress_stream());
    visible_ = mode_ == ProgressMode::bar;
}

void Progress::show_bar() const {
    const unsigned filled = bar_width * percent() / 100;
    std::string tail;
    if (!finished_ && rate()) {
        tail = "  " + human_rate(*rate());
    }
    if (const auto left = seconds_left(); !finished_ && left) {
        tail += "  " + human_seconds(*left) + " left";
    }
    std::fprintf(console::progress_stream(), "%s[%s%s] %3u %%  %s %.24s%s", console::clear_line.data(),
                 std::string(filled, '#').c_str(), std::string(bar_width - filled, ' ').c_str(), percent(),
                 phase_.c_str(), subject_.c_str(), tail.c_str());
}

void Progress::show_line() const {
    std::string line = format("%u %%, %s %s", percent(), phase_.c_str(), subject_.c_str());
    if (const uint64_t verified = verified_bytes(); written_ + unchanged_ + verified > 0) {
        line += ", " + human_bytes(written_) + " written, " + human_bytes(unchanged_) + " unchanged, " +
                human_bytes(verified) + " verified";
    }
    if (rate()) {
        line += ", " + human_rate(*rate());
    }
    if (const auto left = seconds_left()) {
        line += ", " + human_seconds(*left) + " left";
    }
    std::fprintf(console::progress_stream(), "%s\n", line.c_str());
}

void Progress::show_json() const {
    Json line = {{"percent", percent()},
                 {"phase", phase_},
                 {"done", done()},
                 {"total", total()},
                 {"written", written_},
                 {"unchanged", unchanged_},
                 {"verified", verified_bytes()}};
    if (!subject_.empty()) {
        line["subject"] = subject_;
    }
    if (rate()) {
        line["bytes_per_second"] = std::llround(*rate());
    }
    if (const auto left = seconds_left()) {
        line["seconds_left"] = std::llround(std::ceil(*left));
    }
    std::fprintf(console::progress_stream(), "%s\n", to_text(Json{{"progress", line}}).c_str());
}

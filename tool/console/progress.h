// SPDX-License-Identifier: Apache-2.0
/**
 * Progress over known amounts of work, of which several kinds may go on at once. The percentage never decreases: work
 * that turns out to be unnecessary is subtracted from the total. It stays below 100 % until finish(), because syncing
 * and the last steps of an update have no bytes to count. One thread at a time.
 */
#ifndef TOOL_PROGRESS_H
#define TOOL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class ProgressMode { none, bar, plain, json };

/** A bar on a terminal, lines elsewhere and in JSON mode. */
ProgressMode default_progress_mode();

class Progress {
public:
    using Clock = std::chrono::steady_clock;

    explicit Progress(ProgressMode mode) : mode_(mode) {
    }
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /** Announces work of a kind, such as "write", before any of it is done. */
    void expect(std::string_view work, uint64_t bytes);
    /** Withdraws announced work that is not needed. */
    void spare(std::string_view work, uint64_t bytes);
    /** A step begins. `phase` may be a kind of work or something that has no bytes, such as "sync". */
    void begin(std::string_view phase, const std::string& subject);
    /** Records `bytes` more of the work "write" as done: the device was written, or held them already. */
    void store(uint64_t written, uint64_t unchanged);
    /** Records `bytes` more of this kind of work as done. */
    void advance(std::string_view work, uint64_t bytes);
    /** Shows the progress if the interval has elapsed. */
    void tick();
    void finish();

private:
    struct Work {
        std::string name;
        uint64_t total = 0;
        uint64_t done = 0;
    };

    Work& find(std::string_view name);
    [[nodiscard]] uint64_t done() const;
    [[nodiscard]] uint64_t total() const;
    [[nodiscard]] uint64_t verified_bytes() const;
    [[nodiscard]] unsigned percent() const;
    [[nodiscard]] std::optional<double> rate() const;
    [[nodiscard]] std::optional<double> seconds_left() const;
    void show();
    void show_bar() const;
    void show_line() const;
    void show_json() const;

    ProgressMode mode_;
    std::vector<Work> works_;
    std::string phase_;
    std::string subject_;
    uint64_t written_ = 0;
    uint64_t unchanged_ = 0;
    unsigned percent_ = 0; /* shown last */
    Clock::time_point begun_ = Clock::now();
    Clock::time_point shown_ = Clock::now();
    bool visible_ = false;
    bool finished_ = false;
};

#endif

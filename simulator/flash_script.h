// SPDX-License-Identifier: Apache-2.0
/** Faults by script and the journal of what reached the devices (flash_sim.h describes the formats). */
#ifndef FLASH_SCRIPT_H
#define FLASH_SCRIPT_H

#include "flash_device.h"

#include <atomic>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/** What happens to one operation. */
struct flash_verdict {
    bool refused = false;        /* the power is off: it does not reach the device */
    std::optional<long> result;  /* it has no effect and returns this, a negated errno for a failure */
    uint64_t limit = UINT64_MAX; /* maximum number of bytes that it moves */
    int signal = 0;              /* sent to the process before it */
    power_tear tear;             /* the power fails within it */
    bool is_last = false;        /* the power fails after it */
};

class flash_script {
public:
    flash_script() = default;
    /** Throws std::runtime_error with the reason. */
    explicit flash_script(std::string_view text);

    /** Counts the operation in `operations`, which other programs of the board may count in too. */
    flash_verdict decide(const flash_operation& operation, std::atomic<uint64_t>& operations);

    [[nodiscard]] bool cuts_at_once() const {
        return cut_.after == 0;
    }
    [[nodiscard]] bool kills() const {
        return cut_.kills;
    }
    [[nodiscard]] bool tears() const {
        return cut_.tear.has_value();
    }
    [[nodiscard]] uint64_t seed() const {
        return cut_.seed;
    }

private:
    enum class effect { fail, give, lose, shorten, raise };
    struct rule {
        effect what;
        std::string kind;
        uint64_t number;
        long value;
    };
    struct power_cut {
        uint64_t after = UINT64_MAX;
        power_tear tear;
        bool kills = false;
        uint64_t seed = 0;
    };

    void parse_rule(const std::string& text);
    void parse_cut(std::istringstream& words);
    static void apply(const rule& fault, const flash_operation& operation, flash_verdict& verdict);

    std::vector<rule> rules_;
    power_cut cut_;
    std::map<std::string, uint64_t, std::less<>> counts_;
};

/** The line of one operation, without a newline. */
std::string journal_line(const std::string& device, const flash_operation& operation, long result);

#endif

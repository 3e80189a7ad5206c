// SPDX-License-Identifier: Apache-2.0
/** The update status that one installation writes, at most three times. */
#ifndef TOOL_INSTALL_RECORD_H
#define TOOL_INSTALL_RECORD_H

#include "install/install_plan.h"

/**
 * Each change of the record erases a block of "ubootenv" on flash, and until it is written back there is neither this
 * record nor the anti-rollback record in that block. Each call returns when the medium holds the record.
 */
class InstallRecord {
public:
    explicit InstallRecord(const Plan& plan) : plan_(plan) {
    }

    /** Nothing has changed yet: an installation that ends after this is shown as interrupted. */
    void begin();
    [[nodiscard]] bool has_begun() const {
        return record_.up == OTA_FLAG_BURN;
    }
    /** Every image has been read back. */
    void set_verified();
    void end();

private:
    void fill();

    const Plan& plan_;
    ota_status_t record_{};
};

#endif

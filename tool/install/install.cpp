// SPDX-License-Identifier: Apache-2.0
#include "install/install.h"

#include "board/names.h"
#include "board/partition.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "console/interrupt.h"
#include "install/image_install.h"
#include "install/install_record.h"
#include "internal/ota_paths.h"

namespace {

/* ---- slots ---- */

void make_unbootable(int32_t slot) {
    const SlotBlock block = read_slot_block();
    const Slot* entry = block.find(slot);
    if (entry != nullptr && !entry->is_given_up()) {
        mark_slot_unbootable(slot);
    } else {
        sync_partition(ota_misc_partition); /* a run that was killed may have left it in the page cache only */
    }
}

/* ---- the installation ---- */

class Installation {
public:
    Installation(Plan& plan, ImageSource& source, Progress& progress)
        : plan_(plan), source_(source), progress_(progress), record_(plan) {
    }

    /** @return whether anything had to be written */
    bool install_images() {
        for (Target& target : plan_.targets) {
            if (!target.image.is_ab()) {
                source_.finish();
            }
            if (!target.is_installed) {
                install_image(
                    target, source_, !plan_.rewrites, [&] { prepare(target); }, progress_);
            }
        }
        source_.finish();
        stop_if_interrupted();
        return record_.has_begun();
    }

    /** After every image was read back. */
    void finish() {
        record_.set_verified();
        if (plan_.versions) {
            store_versions(*plan_.versions);
        }
        if (plan_.switches) {
            progress_.begin("switch", "slot " + slot_letter(*plan_.slot));
            set_next_slot(*plan_.slot);
        }
        record_.end();
    }

    /** Partitions that exist once and whose write has begun; empty if none. */
    [[nodiscard]] const std::string& exposed_partitions() const {
        return exposed_;
    }

private:
    /** Before the first byte of a target changes. */
    void prepare(const Target& target) {
        stop_if_interrupted();
        if (!record_.has_begun()) {
            record_.begin();
        }
        if (!target.image.is_ab()) {
            exposed_ += (exposed_.empty() ? "" : ", ") + target.partition();
        } else if (!is_unbootable_) {
            make_unbootable(*plan_.slot);
            is_unbootable_ = true;
        }
    }

    Plan& plan_;
    ImageSource& source_;
    Progress& progress_;
    InstallRecord record_;
    bool is_unbootable_ = false;
    std::string exposed_;
};

/* ---- when there is nothing to do ---- */

/** Whether an earlier run left the record and everything it lists was found installed. */
bool is_completed_by(const Plan& plan, const StoredStatus& stored) {
    if (stored.record.owner != OTA_TOOL || !unfinished_partition(plan, stored.record).empty()) {
        return false;
    }
    return !stored.lists_slot() || (plan.slot && stored.record.next_slot == static_cast<uint32_t>(*plan.slot));
}

/** The results of an earlier run may still be only in the page cache, and its status unfinished. */
void settle(const Plan& plan) {
    if (plan.slot) {
        sync_partition(ota_misc_partition);
    }
    if (plan.versions && read_stored_versions().is_missing()) {
        store_versions(*plan.versions);
    }
    const StoredStatus stored = read_status();
    if (stored.is_valid ? is_completed_by(plan, stored) : can_keep_status()) {
        clear_status();
    }
}

/* ---- when it fails ---- */

/** Reads the slot block, which is more reliable than a record of the steps taken. */
std::string state_of_board(const Plan& plan, const std::string& exposed) {
    std::string state;
    try {
        const SlotBlock block = read_slot_block();
        const auto next = next_slot();
        state = next ? "the board boots slot " + slot_letter(*next) + " next" : "no slot is bootable";
        const Slot* entry = plan.slot ? block.find(*plan.slot) : nullptr;
        if (entry != nullptr && !entry->is_bootable()) {
            state += ", and " + entry->name() + " is unbootable until an installation succeeds";
        }
    } catch (const Failure&) {
        state = "which slot boots next is unknown";
    }
    return exposed.empty() ? state : state + "; the contents of " + exposed + " are unknown";
}

} // namespace

bool carry_out(Plan& plan, ImageSource& source, Progress& progress) {
    Installation installation(plan, source, progress);
    try {
        if (!installation.install_images() && is_done(plan)) {
            settle(plan);
            return false;
        }
        installation.finish();
        return true;
    } catch (Failure& failure) {
        failure.state = state_of_board(plan, installation.exposed_partitions());
        throw;
    } catch (const std::exception& error) {
        throw Failure(ExitCode::failed, error.what(), "", state_of_board(plan, installation.exposed_partitions()));
    }
}

// SPDX-License-Identifier: Apache-2.0
/** tessera efuse: the board's anti-rollback counters, and raising them once no system needs the old ones. */
#include "board/names.h"
#include "board/status_record.h"
#include "console/text.h"
#include "firmware/board_firmware.h"
#include "install/update_lock.h"
#include "velox_ota_hl.h"
#include "verbs/verb.h"

#include <algorithm>

namespace {

struct Options {
    bool confirmed = false;
    bool give_up_other_slot = false;
    bool unchecked = false;
    std::string lock_file = default_lock_file;
};

[[noreturn]] void refuse(const std::string& cause, const std::string& hint = {}) {
    throw Failure(ExitCode::failed, "cannot raise the counters: " + cause, hint);
}

/* ---- what to burn ---- */

[[noreturn]] void refuse_lower(const char* which, uint32_t version, uint32_t counter) {
    refuse(format("the stored %s version %u is below the counter %u", which, version, counter),
           "tessera install PACKAGE    (stores the versions of another package)");
}

void refuse_unversioned(const char* which, bool raise, uint32_t version) {
    if (raise && version == version_without_certificates) {
        refuse(format("the stored %s version is %u, which means an image without certificates", which, version));
    }
}

/** Refuses before the first fuse: the library burns one counter before it finds that the other is wrong. */
void check_raise(const antirollback_ver_t& record, const Counters& counters) {
    const bool secure = record.sec_up_flag == 1;
    const bool non_secure = record.nosec_up_flag == 1;
    const Counters raised = {secure ? counters.secure : 0, non_secure ? counters.non_secure : 0};
    switch (check_firmware_versions({record.sec_ver, record.nosec_ver, record.nosec_ver}, raised).reason) {
    case antirollback_reason::secure_below:
        refuse_lower("secure", record.sec_ver, counters.secure);
    case antirollback_reason::non_secure_below:
        refuse_lower("non-secure", record.nosec_ver, counters.non_secure);
    default:
        break;
    }
    refuse_unversioned("secure", secure, record.sec_ver);
    refuse_unversioned("non-secure", non_secure, record.nosec_ver);
}

/** The record of the last package that was installed. */
antirollback_ver_t versions_to_burn(const Counters& counters) {
    const StoredVersions stored = read_stored_versions();
    if (stored.is_missing()) {
        refuse("no installed package has stored a record of its versions",
               "tessera install PACKAGE    (stores one, even for a package that is already installed)");
    }
    const antirollback_ver_t& record = stored.record;
    if (record.sec_up_flag != 1 && record.nosec_up_flag != 1) {
        refuse("the installed package does not request it");
    }
    check_raise(record, counters);
    return record;
}

/** The version that a kind of firmware must have; nullopt if its counter is not to be raised. */
std::optional<uint32_t> demanded_version(const antirollback_ver_t& record, FirmwareKind kind) {
    const bool is_secure = kind == FirmwareKind::miniboot;
    const bool raise = (is_secure ? record.sec_up_flag : record.nosec_up_flag) == 1;
    return raise ? std::optional(is_secure ? record.sec_ver : record.nosec_ver) : std::nullopt;
}

/* ---- whether the board can do without the old counters ---- */

SlotBlock read_block_or_refuse() {
    try {
        return read_slot_block();
    } catch (const Failure& failure) {
        refuse(failure.what(), failure.hint);
    }
}

int32_t confirmed_running_slot(const SlotBlock& block) {
    if (get_boot_mode() == RECOVERY_MODE) {
        refuse("this is the recovery system: no slot is running");
    }
    const int32_t running = ota_get_cur_slot();
    if (running < 0) {
        refuse("the running slot is unknown", "tessera board --check");
    }
    if (!block.checksum_is_right) {
        refuse("the checksum of the slot block is wrong", "tessera confirm");
    }
    const Slot* slot = block.find(running);
    if (slot == nullptr) {
        refuse("slot " + slot_letter(running) + " is running, but the slot block does not list it", "tessera slots");
    }
    if (!slot->is_confirmed()) {
        refuse(slot->name() + " is running and not confirmed",
               "tessera confirm    (once this system is known to work)");
    }
    return running;
}

void demand_no_update() {
    const StoredStatus status = read_status();
    if (!status.is_valid) {
        refuse(
            format("the update status is not valid (%s): whether an update was interrupted is unknown", status.fault),
            "tessera install PACKAGE    (rewrites it, with the installed package)");
    }
    if (!status.is_idle()) {
        refuse("an update has not ended", "tessera install PACKAGE    (completes or replaces it)");
    }
}

bool has_kind(const std::vector<BoardFirmware>& firmware, int32_t slot, FirmwareKind kind) {
    return std::any_of(firmware.begin(), firmware.end(),
                       [&](const BoardFirmware& one) { return one.serves(slot) && one.image.kind == kind; });
}

/** The firmware of which a counter would be raised and no image exists for the slot; empty without such. */
std::string absent_firmware(const std::vector<BoardFirmware>& firmware, int32_t slot,
                            const antirollback_ver_t& record) {
    if (record.sec_up_flag == 1 && !has_kind(firmware, slot, FirmwareKind::miniboot)) {
        return "miniboot";
    }
    if (record.nosec_up_flag == 1 && !has_kind(firmware, slot, FirmwareKind::uboot) &&
        !has_kind(firmware, slot, FirmwareKind::vbmeta)) {
        return "uboot or vbmeta";
    }
    return {};
}

/** Why the system in a slot would no longer boot by its firmware; empty when it would. */
std::string complaint_about(const std::vector<BoardFirmware>& firmware, int32_t slot,
                            const antirollback_ver_t& record) {
    for (const BoardFirmware& one : firmware) {
        const ImageVersion& image = one.image;
        const auto demanded = demanded_version(record, image.kind);
        if (!one.serves(slot) || !demanded) {
            continue;
        }
        if (!image.version) {
            return image.problem;
        }
        if (*image.version < *demanded) {
            return format("%s has version %llu, below %u", image.partition.c_str(),
                          static_cast<unsigned long long>(*image.version), *demanded);
        }
    }
    return {};
}

void check_running_slot(const std::vector<BoardFirmware>& firmware, int32_t running, const antirollback_ver_t& record,
                        bool unchecked) {
    const std::string absent = absent_firmware(firmware, running, record);
    if (!absent.empty() && !unchecked) {
        refuse("slot " + slot_letter(running) + " has no partition with " + absent + " firmware to check",
               "--unchecked skips that check");
    }
    if (const std::string complaint = complaint_about(firmware, running, record); !complaint.empty()) {
        refuse(complaint);
    }
}

/** The same for another slot, which must have every kind of firmware that the running slot has. */
std::string complaint_about_other(const std::vector<BoardFirmware>& firmware, int32_t other, int32_t running,
                                  const antirollback_ver_t& record) {
    if (const std::string absent = absent_firmware(firmware, other, record); !absent.empty()) {
        return "it has no " + absent + " firmware";
    }
    for (const FirmwareKind kind : {FirmwareKind::miniboot, FirmwareKind::uboot, FirmwareKind::vbmeta}) {
        if (has_kind(firmware, running, kind) && !has_kind(firmware, other, kind)) {
            return std::string("it has no ") + firmware_name(kind) + " firmware";
        }
    }
    return complaint_about(firmware, other, record);
}

/** The bootable slots that the raised counters would make unbootable. Refuses unless they may be given up. */
std::vector<Slot> slots_to_give_up(const std::vector<BoardFirmware>& firmware, const SlotBlock& block, int32_t running,
                                   const antirollback_ver_t& record, bool give_up) {
    std::vector<Slot> lost;
    for (const Slot& slot : block.slots) {
        if (slot.number == running || !slot.is_bootable()) {
            continue;
        }
        const std::string complaint = complaint_about_other(firmware, slot.number, running, record);
        if (!complaint.empty() && !give_up) {
            refuse(slot.name() + " is bootable and would be lost: " + complaint,
                   "--give-up-other-slot makes it unbootable first");
        }
        if (!complaint.empty()) {
            lost.push_back(slot);
        }
    }
    return lost;
}

/** Refuses unless no system of the board that is worth keeping needs the counters as they are. */
std::vector<Slot> check_board(const antirollback_ver_t& record, const Options& options) {
    const SlotBlock block = read_block_or_refuse();
    const int32_t running = confirmed_running_slot(block);
    demand_no_update();
    const auto firmware =
        read_board_firmware(block, [&](FirmwareKind kind) { return demanded_version(record, kind).has_value(); });
    check_running_slot(firmware, running, record, options.unchecked);
    return slots_to_give_up(firmware, block, running, record, options.give_up_other_slot);
}

/* ---- burning ---- */

/** What a package must contain once the counters are raised. */
std::string demand_on_packages(const Counters& counters) {
    const auto demand = [](const char* firmware, uint32_t version) {
        return format("%s firmware of version %u or higher", firmware, version);
    };
    if (counters.secure == counters.non_secure) {
        return demand("miniboot, uboot and vbmeta", counters.secure);
    }
    std::string all = counters.secure > 0 ? demand("miniboot", counters.secure) : "";
    if (counters.non_secure > 0) {
        all += (all.empty() ? "" : ", and ") + demand("uboot and vbmeta", counters.non_secure);
    }
    return all;
}

Counters raised(const Counters& counters, const antirollback_ver_t& record) {
    return {record.sec_up_flag == 1 ? record.sec_ver : counters.secure,
            record.nosec_up_flag == 1 ? record.nosec_ver : counters.non_secure};
}

/** A counter that already has its value is not burnt again: what the board's library would do is unknown. */
void raise_counters(antirollback_ver_t record, const Counters& counters) {
    const Counters wanted = raised(counters, record);
    record.sec_up_flag = wanted.secure != counters.secure ? 1 : 0;
    record.nosec_up_flag = wanted.non_secure != counters.non_secure ? 1 : 0;
    require(ExitCode::device, "cannot raise the counters", [&] { return set_efuse_antirollback(&record); });
    const Counters now = read_counters();
    if (now != wanted) {
        throw Failure(ExitCode::device,
                      format("the counters read back as %u and %u, not as burnt", now.secure, now.non_secure));
    }
}

std::string names_of(const std::vector<Slot>& slots) {
    std::string names;
    for (const Slot& slot : slots) {
        names += (names.empty() ? "" : " and ") + slot.name();
    }
    return names;
}

void show_counters(const Context& context) {
    const Counters counters = read_counters();
    context.show({{"secure", counters.secure}, {"non_secure", counters.non_secure}},
                 format("secure      %u\nnon-secure  %u", counters.secure, counters.non_secure));
}

void show_burnt(const Context& context, const Counters& counters, const std::vector<Slot>& given_up) {
    Json slots = Json::array();
    for (const Slot& slot : given_up) {
        slots.push_back(slot.number);
    }
    std::string text = format("secure      %u\nnon-secure  %u\n", counters.secure, counters.non_secure);
    text += given_up.empty() ? "" : names_of(given_up) + " was made unbootable\n";
    if (counters != Counters{}) {
        text += "from now on a package without " + demand_on_packages(counters) + " is refused";
    }
    context.show({{"secure", counters.secure}, {"non_secure", counters.non_secure}, {"given_up_slots", slots}}, text);
}

/** The state after a failure. */
std::string state_of_board(const std::vector<Slot>& lost) {
    try {
        const Counters now = read_counters();
        const std::string counters = format("the counters are: secure %u, non-secure %u", now.secure, now.non_secure);
        return lost.empty() ? counters : counters + "; " + names_of(lost) + " was to be made unbootable first";
    } catch (const Failure&) {
        return "what the counters are is unknown";
    }
}

void give_up_and_raise(const antirollback_ver_t& record, const Counters& counters, const std::vector<Slot>& lost) {
    try {
        for (const Slot& slot : lost) {
            mark_slot_unbootable(slot.number);
        }
        raise_counters(record, counters);
    } catch (Failure& failure) {
        failure.state = state_of_board(lost);
        throw;
    }
}

void burn(const Context& context, const Options& options) {
    const UpdateLock lock(options.lock_file, "tessera efuse burn"); /* an update may store other versions */
    const Counters counters = read_counters();
    const antirollback_ver_t record = versions_to_burn(counters);
    std::vector<Slot> lost = check_board(record, options);
    const Counters wanted = raised(counters, record);
    if (wanted == counters) {
        show_burnt(context, counters, {});
        return;
    }
    if (!options.confirmed) {
        throw Failure(
            ExitCode::usage,
            "raising the counters cannot be undone: older systems will never boot again, and a package without " +
                demand_on_packages(wanted) + " will be refused",
            "tessera efuse burn --yes");
    }
    give_up_and_raise(record, counters, lost);
    show_burnt(context, wanted, lost);
}

} // namespace

void declare_efuse(Command& verb, Context& context) {
    allow_command(verb);
    on_command(verb, context, [&context] { show_counters(context); });
    Command& command = add_command(verb, "burn",
                                   "Raise the counters as the installed package requests, if no system on the "
                                   "board needs the old ones");
    auto options = std::make_shared<Options>();
    add_flag(command, "--yes", options->confirmed, "Confirm: this cannot be undone");
    add_flag(command, "--give-up-other-slot", options->give_up_other_slot,
             "First make the other slot unbootable if its firmware is too old");
    add_flag(command, "--unchecked", options->unchecked, "Allow a board without a partition for the firmware to check");
    add_lock(command, options->lock_file);
    on_command(command, context, [&context, options] { burn(context, *options); });
}

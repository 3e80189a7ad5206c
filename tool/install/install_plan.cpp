// SPDX-License-Identifier: Apache-2.0
#include "install/install_plan.h"

#include "board/names.h"
#include "board/partition.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "board/version_file.h"
#include "console/console.h"
#include "console/text.h"
#include "install/image_install.h"
#include "package/board_identity.h"

#include <algorithm>
#include <filesystem>

namespace {

std::string device_path(const Image& image) {
    char untouched[sizeof ota_file_info_t::path];
    char path[sizeof ota_file_info_t::path];
    require(ExitCode::device, "cannot determine the device for " + image.name,
            [&] { return get_part_device_name(image.name.c_str(), untouched, path, image.type); });
    return path;
}

void open_device(Target& target) {
    const std::string& name = target.image.name;
    if (!std::filesystem::exists(target.device)) {
        throw Failure(ExitCode::refused, "the board has no partition " + target.partition(), "tessera partitions");
    }
    target.opened = std::make_unique<const Device>(target.device);
    const Device& device = *target.opened;
    const bool wants_flash = target.image.medium != OTA_EMMC;
    if (device.is_flash() != wants_flash) {
        throw Failure(ExitCode::refused, name + " is described as being on " + medium_names.word(target.image.medium) +
                                             ", but " + target.device + " is not");
    }
    if (target.size > device.capacity()) {
        throw Failure(ExitCode::refused, target.image.file + " has " + human_bytes(target.size) + ", but " +
                                             target.partition() + " has room for only " +
                                             human_bytes(device.capacity()));
    }
}

Target make_target(const ImageSource& source, const Image& image, const InstallOptions& options) {
    const bool read_first = image.is_checked_first() || (options.dry_run && !source.is_read_once(image));
    Target target{image, *image.size, device_path(image), read_first};
    open_device(target);
    return target;
}

/** The version of the running system; empty if the board has no version file. */
std::string read_installed_version(const InstallOptions& options) {
    std::error_code ignored; /* a file that cannot be looked up may exist */
    const auto type = std::filesystem::status(options.version_file, ignored).type();
    if (!options.version_file_named && type == std::filesystem::file_type::not_found) {
        return "";
    }
    try {
        return read_version_file(options.version_file);
    } catch (const Failure& failure) {
        if (options.allow_downgrade) {
            return "";
        }
        throw Failure(ExitCode::failed, std::string("cannot determine the installed version: ") + failure.what(),
                      "--allow-downgrade installs without comparing");
    }
}

void check_version(const Plan& plan, bool allow_downgrade) {
    const std::string& offered = plan.description.version;
    if (allow_downgrade || plan.installed_version.empty()) {
        return;
    }
    if (compare_sys_versions(offered.c_str(), plan.installed_version.c_str()) == 1) {
        throw Failure(ExitCode::refused,
                      "version " + offered + " is older than the installed " + plan.installed_version,
                      "--allow-downgrade installs it anyway");
    }
}

/** An update needs two slots, the running one and its neighbour: a and b, or c and d. */
void check_update_slot(const SlotBlock& block) {
    const int32_t running = running_slot();
    for (const int32_t slot : {running, running ^ 1}) {
        if (block.find(slot) == nullptr) {
            throw Failure(ExitCode::failed,
                          "slot " + slot_letter(running) + " is running, but the slot block has no slot " +
                              slot_letter(slot),
                          "tessera slots");
        }
    }
}

/** How the slot that is not written becomes a confirmed one. Where no slot's system runs, one has to boot first. */
std::string how_to_confirm(const SlotBlock& block, const Plan& plan, int32_t kept) {
    const Slot* slot = block.find(kept);
    if (plan.running == kept && slot != nullptr && !slot->corrupted) {
        return "tessera confirm";
    }
    if (plan.running) {
        return "if this system works, tessera slots set-next " + slot_letter(*plan.running) + ", then tessera confirm";
    }
    const int32_t bootable = slot != nullptr && slot->is_bootable() ? kept : *plan.slot;
    return "boot slot " + slot_letter(bootable) + " and run tessera confirm there";
}

/** The running slot, which is on trial then, is made the next one only where something has put another before it. */
bool needs_switch(const SlotBlock& block, int32_t slot, std::optional<int32_t> running) {
    return slot != running || !block.has_highest_priority(slot) || block.find(slot)->corrupted;
}

} // namespace

std::string Target::partition() const {
    return std::filesystem::path(device).filename();
}

bool Plan::writes(bool ab) const {
    return std::any_of(targets.begin(), targets.end(),
                       [&](const Target& target) { return target.image.is_ab() == ab && !target.is_installed; });
}

Plan begin_plan(ImageSource& source, const InstallOptions& options) {
    Plan plan;
    plan.description = source.describe(options.trust, plan.signer);
    check_board_name(plan.description, options.board);
    source.check_contents(plan.description, !options.trust.file.empty());
    plan.installed_version = read_installed_version(options);
    check_version(plan, options.allow_downgrade);
    return plan;
}

void add_targets(Plan& plan, const ImageSource& source, const InstallOptions& options) {
    const std::vector<Image>& images = plan.description.images;
    plan.rewrites = options.force;
    if (std::any_of(images.begin(), images.end(), [](const Image& image) { return image.is_ab(); })) {
        check_update_slot(require_slot_block());
    }
    for (const Image& image : images) {
        plan.targets.push_back(make_target(source, image, options));
    }
    std::stable_partition(plan.targets.begin(), plan.targets.end(),
                          [](const Target& target) { return target.image.is_ab(); });
    if (plan.targets.front().image.is_ab()) {
        const int32_t running = running_slot();
        plan.running = get_boot_mode() == RECOVERY_MODE ? std::nullopt : std::optional(running);
        plan.slot = require(ExitCode::device, "cannot determine the update slot", [] { return ota_get_update_slot(); });
        plan.switches = needs_switch(require_slot_block(), *plan.slot, plan.running);
    }
}

void announce(const Plan& plan, const InstallOptions& options, Progress& progress) {
    for (const Target& target : plan.targets) {
        const uint64_t written = options.dry_run ? 0 : target.size;
        progress.expect("check", target.read_first ? target.size : 0);
        progress.expect("write", written);
        progress.expect("verify", written);
    }
}

void survey(Target& target, ImageSource& source, Progress& progress) {
    progress.expect("compare", target.size);
    target.is_installed = holds_image(target, source, progress);
    if (target.is_installed) {
        progress.spare("check", target.read_first ? target.size : 0);
        progress.spare("write", target.size);
        progress.spare("verify", target.size);
    }
}

void survey(Plan& plan, ImageSource& source, bool all, Progress& progress) {
    for (Target& target : plan.targets) {
        survey(target, source, progress);
        if (!all && !target.is_installed) {
            return;
        }
    }
}

void check_images(const Plan& plan, ImageSource& source, Progress& progress) {
    for (const Target& target : plan.targets) {
        if (!target.read_first || target.is_installed) {
            continue;
        }
        const Image& image = target.image;
        if (!image.matches(digest_image(*source.open(image), image, image.strongest_digest(), progress))) {
            throw wrong_digest(image);
        }
    }
}

std::string unfinished_partition(const Plan& plan, const ota_status_t& record) {
    for (size_t i = 0; i < listed_partitions(record); ++i) {
        std::string name = partition_name(record.update_part, i);
        if (std::none_of(plan.targets.begin(), plan.targets.end(),
                         [&](const Target& target) { return target.image.name == name; })) {
            return name;
        }
    }
    return "";
}

void check_record(Plan& plan) {
    const StoredStatus stored = read_status();
    plan.record_is_valid = stored.is_valid;
    if (!stored.is_cut()) {
        return;
    }
    if (std::string name = unfinished_partition(plan, stored.record); !name.empty()) {
        throw Failure(ExitCode::failed,
                      "an earlier installation has not ended, and this package has no image for its partition " + name,
                      "install one that has; tessera status shows the record");
    }
}

bool is_done(const Plan& plan) {
    return !plan.writes(true) && !plan.writes(false) && (!plan.switches || read_slot_block().is_sole_next(*plan.slot));
}

std::optional<Failure> find_slot_problem(const Plan& plan) {
    if (!plan.slot || is_done(plan)) {
        return std::nullopt;
    }
    if (plan.slot == plan.running && plan.writes(true)) {
        return Failure(ExitCode::failed,
                       "slot " + slot_letter(*plan.slot) + " would be written, but it is running on trial",
                       "tessera confirm keeps this system, tessera rollback returns to the other; then install");
    }
    const SlotBlock block = read_slot_block();
    const int32_t kept = *plan.slot ^ 1;
    const Slot* slot = block.find(kept);
    const bool is_confirmed = slot != nullptr && slot->is_confirmed();
    const bool has_nothing_to_lose = !plan.running && !block.has_bootable_slot();
    if (is_confirmed || has_nothing_to_lose) {
        return std::nullopt;
    }
    return Failure(ExitCode::failed,
                   "slot " + slot_letter(kept) + " is not confirmed, so slot " + slot_letter(*plan.slot) +
                       " cannot be updated",
                   how_to_confirm(block, plan, kept));
}

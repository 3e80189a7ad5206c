// SPDX-License-Identifier: Apache-2.0
#include "install/install.h"

#include "board/names.h"
#include "board/partition.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "console/console.h"
#include "console/interrupt.h"
#include "console/text.h"

#include <algorithm>
#include <future>

namespace {

constexpr size_t read_back_size = size_t{256} << 10;

using Group = std::vector<const Target*>;

/** The images of one kind to write, in the order of the plan. */
Group group_of(const Plan& plan, bool ab) {
    Group group;
    for (const Target& target : plan.targets) {
        if (target.image.is_ab() == ab && !target.is_installed) {
            group.push_back(&target);
        }
    }
    return group;
}

/* ---- before ---- */

/** The record that `tessera status` shows after an interrupted run. */
void record_start(const Plan& plan) {
    StoredStatus stored = read_status();
    ota_status_t record = stored.is_valid ? stored.record : ota_status_t{};
    record.up = OTA_FLAG_BURN;
    record.next_slot = static_cast<uint32_t>(plan.slot.value_or(std::max(0, ota_get_cur_slot())));
    record.update_part = {};
    for (const Target& target : plan.targets) {
        const uint32_t i = record.update_part.num++;
        target.image.name.copy(record.update_part.array[i], sizeof record.update_part.array[i] - 1);
        record.update_part.medium[i] = target.image.medium;
        record.update_part.type[i] = target.image.type;
    }
    write_status(record);
}

void make_unbootable(int32_t slot) {
    const SlotBlock block = read_slot_block();
    const Slot* entry = block.find(slot);
    if (entry != nullptr && !entry->is_given_up()) {
        mark_slot_unbootable(slot);
    } else {
        sync_partition("misc"); /* a run that was killed may have left it in the page cache only */
    }
}

/* ---- writing ---- */

/** The image being written; the library's callback has no context argument. */
struct Stream {
    ota_file_info_t place{};
    const Device* device = nullptr;
    Progress* progress = nullptr;
    uint64_t written = 0;
    int error = 0; /* errno value reported by the device while storing the image */
};

Stream* stream = nullptr;

void on_chunk(int32_t bytes) {
    const uint64_t begin = stream->written;
    stream->written += static_cast<uint64_t>(bytes);
    if (!stream->device->is_flash() && stream->error == 0) {
        stream->error = stream->device->push(begin, stream->written); /* else the page cache would fill up */
    }
    stream->progress->advance("write", static_cast<uint64_t>(bytes));
    console::pass_log_on();
    if (is_interrupted() || stream->error != 0) {
        stream->place.path[0] = '\0'; /* the next chunk finds no device, so the call ends between chunks */
    }
}

void write_image(const Target& target, const Package& package, Progress& progress) {
    stop_if_interrupted();
    progress.begin("write", target.partition());
    repair_device(target.device);
    const Device& device = *target.opened;
    Stream current;
    target.device.copy(current.place.path, sizeof current.place.path - 1);
    current.place.medium = target.image.medium;
    current.device = &device;
    current.progress = &progress;
    stream = &current;
    console::forget_errors();
    const int32_t result =
        vx_uncompress_file_to(package.path().c_str(), target.image.file.c_str(), &current.place, on_chunk);
    stream = nullptr;
    if (current.error != 0) {
        throw Failure(ExitCode::device, "cannot write to " + target.partition() + because(current.error));
    }
    stop_if_interrupted();
    if (result != 0) {
        throw Failure(ExitCode::device,
                      "cannot write " + target.image.file + " to " + target.partition() + console::logged_cause());
    }
    if (current.written != target.size) {
        throw Failure(ExitCode::refused, format("%s unpacked to %llu bytes instead of %llu", target.image.file.c_str(),
                                                static_cast<unsigned long long>(current.written),
                                                static_cast<unsigned long long>(target.size)));
    }
    progress.begin("sync", target.partition());
    device.sync();
}

/* ---- reading back ---- */

/**
 * A piece of a device that is being read, in its own thread if the system allows one. Its
 * destructor waits for the reading to end.
 */
struct Piece {
    std::vector<uint8_t> bytes;
    std::future<void> reading;

    void begin(const Device& device, uint64_t offset, uint64_t end) {
        bytes.resize(std::min<uint64_t>(read_back_size, end - offset));
        reading = std::async(std::launch::async | std::launch::deferred,
                             [&device, offset, this] { device.read(offset, bytes); });
    }
};

/** Reads one piece while the previous one is digested. */
Digests read_back(const Device& device, const Target& target, Progress& progress) {
    Digester digester(target.image.strongest_digest());
    Piece pieces[2];
    uint64_t begun = 0;
    for (size_t i = 0; begun < target.size || pieces[i % 2].reading.valid(); ++i) {
        stop_if_interrupted();
        Piece& piece = pieces[i % 2];
        if (!piece.reading.valid()) {
            piece.begin(device, begun, target.size);
            begun += piece.bytes.size();
        }
        piece.reading.get();
        if (begun < target.size) {
            Piece& next = pieces[(i + 1) % 2];
            next.begin(device, begun, target.size);
            begun += next.bytes.size();
        }
        digester.add(piece.bytes);
        progress.advance("verify", piece.bytes.size());
    }
    return digester.finish();
}

/** Determines whether the image or the device is at fault. */
Failure explain_difference(const Target& target, const Package& package) {
    Progress none(ProgressMode::none);
    if (!target.image.matches(digest_entry(package, target.image, target.image.strongest_digest(), none))) {
        return wrong_digest(target.image);
    }
    return {ExitCode::device, target.partition() + ": the data read back differs from the data written",
            "the device may be worn out"};
}

void verify_image(const Target& target, const Package& package, Progress& progress) {
    progress.begin("verify", target.partition());
    const Device& device = *target.opened;
    device.sync();
    const auto lost = device.uncorrectable_reads();
    const Digests found = read_back(device, target, progress);
    if (!target.image.matches(found)) {
        throw explain_difference(target, package);
    }
    if (device.lost_reads_since(lost)) {
        throw Failure(ExitCode::device, target.partition() + " has pages that its ECC cannot correct",
                      "the device may be worn out");
    }
}

/** @param begun  out: gets each target before its first byte changes */
void write_group(const Group& group, const Package& package, Progress& progress, Group& begun) {
    if (group.empty()) {
        return;
    }
    for (const Target* target : group) {
        begun.push_back(target);
        write_image(*target, package, progress);
    }
    set_status_flag(OTA_FLAG_VERIFY);
    for (const Target* target : group) {
        verify_image(*target, package, progress);
    }
}

/* ---- after ---- */

void switch_slot(int32_t slot) {
    set_next_slot(slot);
    if (next_slot() != slot) {
        throw Failure(ExitCode::device,
                      "slot " + slot_letter(slot) + " is not the next one in the slot block after the switch");
    }
}

void run_plan(const Plan& plan, const Package& package, Progress& progress, Group& begun) {
    const Group slot_group = group_of(plan, true);
    const Group single_group = group_of(plan, false);
    stop_if_interrupted();
    record_start(plan);
    if (!slot_group.empty()) {
        make_unbootable(*plan.slot);
    }
    write_group(slot_group, package, progress, begun);
    if (!slot_group.empty() && !single_group.empty()) {
        set_status_flag(OTA_FLAG_BURN);
    }
    write_group(single_group, package, progress, begun);
    stop_if_interrupted();
    set_status_flag(OTA_FLAG_VERIFIED);
    if (plan.versions) {
        store_versions(*plan.versions);
    }
    if (plan.switches) {
        progress.begin("switch", "slot " + slot_letter(*plan.slot));
        switch_slot(*plan.slot);
    }
    clear_status_flag();
}

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
        sync_partition("misc");
    }
    if (plan.versions && read_stored_versions().is_missing()) {
        store_versions(*plan.versions);
    }
    const StoredStatus stored = read_status();
    if (stored.is_valid ? is_completed_by(plan, stored) : can_keep_status()) {
        clear_status_flag();
    }
}

/* ---- when it fails ---- */

/** Partitions that exist once and whose write has begun. */
std::string exposed_partitions(const Group& begun) {
    std::string names;
    for (const Target* target : begun) {
        if (!target->image.is_ab()) {
            names += (names.empty() ? "" : ", ") + target->partition();
        }
    }
    return names;
}

/** Reads the slot block, which is more reliable than a record of the steps taken. */
std::string state_of_board(const Plan& plan, const Group& begun) {
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
    const std::string exposed = exposed_partitions(begun);
    return exposed.empty() ? state : state + "; the contents of " + exposed + " are unknown";
}

} // namespace

void carry_out(const Plan& plan, bool needed, const Package& package, Progress& progress) {
    Group begun;
    try {
        needed ? run_plan(plan, package, progress, begun) : settle(plan);
    } catch (Failure& failure) {
        failure.state = state_of_board(plan, begun);
        throw;
    } catch (const std::exception& error) {
        throw Failure(ExitCode::failed, error.what(), "", state_of_board(plan, begun));
    }
}

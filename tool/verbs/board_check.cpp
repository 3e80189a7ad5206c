// SPDX-License-Identifier: Apache-2.0
#include "verbs/board_check.h"

#include "board/device.h"
#include "board/names.h"
#include "board/partition.h"
#include "board/slot_block.h"
#include "console/console.h"
#include "console/text.h"
#include "format/antirollback_record.h"
#include "format/flash_command.h"
#include "format/slot_block.h"
#include "install/update_lock.h"
#include "internal/ota_paths.h"
#include "internal/ota_staging.h"
#include "velox_ota_hl.h"

#include <cerrno>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr uint64_t misc_size = slot_block_offset + sizeof(bootloader_control);
constexpr uint64_t ubootenv_size = antirollback_record_offset + sizeof(antirollback_ver_t); /* its last record */

BoardItem number_item(const char* name, int32_t value, const std::string& word, const char* fix) {
    return {name, value >= 0, value >= 0 ? word : "not on the kernel command line", fix};
}

/** A system on trial may be replaced by the other one at the next boot. */
std::string trial_addition() {
    try {
        const SlotBlock block = read_slot_block();
        const Slot* trial = running_trial(block);
        return trial != nullptr ? "; " + trial_remark(*trial) : "";
    } catch (const Failure&) {
        return ""; /* the item of its partition has the reason */
    }
}

std::vector<BoardItem> check_command_line() {
    const int32_t medium = get_boot_medium();
    const int32_t mode = get_boot_mode();
    const int32_t slot = ota_get_cur_slot();
    return {number_item("boot medium", medium, medium_names.word(medium),
                        "have the bootloader put veloxboot.medium=MMC, nand or nor on the kernel command line"),
            number_item("boot mode", mode, mode_names.word(mode),
                        "have the bootloader put veloxboot.mode=normal or recovery on the kernel command line"),
            number_item("running slot", slot, slot_letter(slot) + trial_addition(),
                        "have the bootloader put veloxboot.slot_suffix=_a, _b or _c into the first 1023 bytes of the "
                        "kernel command line")};
}

/** Empty where they cannot be listed, which has an item of its own. */
std::set<std::string> partition_names() {
    try {
        return list_partitions_by_name();
    } catch (const Failure&) {
        return {};
    }
}

/** An item for many names: present if none of them is wrong. */
BoardItem list_item(const char* name, const std::vector<std::string>& wrong, const std::string& found,
                    const std::string& fix) {
    return {name, wrong.empty(), wrong.empty() ? found : joined(wrong), fix};
}

/** Checks that every A/B partition exists for both slots. */
BoardItem check_slots(const std::set<std::string>& names) {
    std::vector<std::string> missing;
    size_t pairs = 0;
    for (const std::string& name : names) {
        if (!name.ends_with("_a") && !name.ends_with("_b")) {
            continue;
        }
        std::string other = name;
        other.back() = name.back() == 'a' ? 'b' : 'a';
        if (!names.contains(other)) {
            missing.push_back("no " + other);
        }
        ++pairs;
    }
    if (pairs == 0) {
        missing.emplace_back("no partition has a slot suffix");
    }
    return list_item("both slots", missing, format("%zu pairs", pairs / 2),
                     "supply each A/B partition twice, as name_a and name_b");
}

BoardItem check_slot_block() {
    const char* name = "slot block";
    try {
        const SlotBlock block = require_slot_block();
        return {name, true, format("%u slots, checksum right", block.stored_count), ""};
    } catch (const Failure& failure) {
        return {name, false, failure.what(), failure.hint.empty() ? "see partition misc" : failure.hint};
    }
}

BoardItem check_room(const std::string& name, uint64_t need) {
    const std::string fix =
        format("supply a partition %s of at least %llu bytes", name.c_str(), static_cast<unsigned long long>(need));
    try {
        const Device device(partition_path(name));
        if (!device.is_straight(need)) {
            return {"partition " + name, false, "a bad block lies before the end of its records",
                    "start the partition with good blocks: records are written past bad ones and read at a fixed "
                    "place"};
        }
        return {"partition " + name, device.capacity() >= need, human_bytes(device.capacity()), fix};
    } catch (const Failure& failure) {
        return {"partition " + name, false, failure.what(), fix};
    }
}

/** What is wrong with a node of the flash, if anything. */
std::string flash_complaint(const std::string& name) {
    const std::string path = partition_path(name);
    std::error_code error;
    const std::string target = fs::read_symlink(path, error).string();
    const bool is_mtd = target.find("mtd") != std::string::npos;
    if (!is_mtd && target.find("ubi") == std::string::npos) {
        return name + " is not a link to a name that contains mtd or ubi";
    }
    try {
        const DeviceKind kind = Device(path).kind();
        return kind == (is_mtd ? DeviceKind::mtd : DeviceKind::ubi) ? "" : name + " does not respond";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

BoardItem check_flash(const std::set<std::string>& names) {
    std::vector<std::string> wrong;
    for (const std::string& name : names) {
        if (const std::string complaint = flash_complaint(name); !complaint.empty()) {
            wrong.push_back(complaint);
        }
    }
    return list_item("flash devices", wrong, format("%zu respond", names.size()),
                     "make each partition a link to an MTD node that answers MEMGETINFO, or to a UBI volume that "
                     "answers UBI_IOCVOLINFO (0x800C4F09)");
}

/** The file that the loader resolved a symbol to; empty if none defines it. */
std::string origin(const char* symbol) {
    Dl_info info{};
    void* const address = dlsym(RTLD_DEFAULT, symbol);
    return address != nullptr && dladdr(address, &info) != 0 ? info.dli_fname : "";
}

/** The desktop's libraries carry a marker symbol, which no board's library has. */
bool is_stand_in(const std::string& file) {
    void* const library = file.empty() ? nullptr : dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (library == nullptr) {
        return false;
    }
    const bool is_marked = dlsym(library, "tessera_stand_in") != nullptr;
    (void)dlclose(library);
    return is_marked;
}

BoardItem check_log_library() {
    const std::string file = origin("__android_log_print");
    return {"log library", !file.empty(), file.empty() ? "no library provides __android_log_print" : file,
            "install the board's liblog.so where the dynamic loader finds it", is_stand_in(file)};
}

BoardItem check_fuses() {
    antirollback_ver_t counters{};
    console::forget_errors();
    const bool answers = get_efuse_antirollback(&counters) == 0;
    const std::string file = origin("kastor_efuse_sec_anti_read");
    return {
        "eFuse library", answers,
        answers ? format("secure %u, non-secure %u, from %s", counters.sec_ver, counters.nosec_ver, file.c_str())
                : "the counters cannot be read" + console::logged_cause(),
        "install the board's libkastor_efuse.so where the dynamic loader finds it, and give it access to the counters",
        is_stand_in(file)};
}

bool is_flash_command(const fs::path& path) {
    fimage_update_t record{};
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(&record), sizeof record);
    return file && check_flash_command(record).state == format_state::valid;
}

BoardItem check_flash_commands(const std::set<std::string>& names) {
    std::error_code error;
    size_t commands = 0;
    for (fs::directory_iterator entry(ota_flashcmd_dir, error), end; !error && entry != end; entry.increment(error)) {
        commands += is_flash_command(entry->path()) ? size_t{1} : 0;
    }
    const bool has_node = names.contains(ota_flashcmd_partition);
    return {"flash commands", has_node && commands > 0,
            format("%zu in %s", commands, ota_flashcmd_dir) + (has_node ? "" : ", but no partition flashcmd"),
            format("supply command files in %s and a partition flashcmd", ota_flashcmd_dir)};
}

/** The library creates the directory, but not the file system under it. */
BoardItem check_staging() {
    std::string path = fs::is_directory(ota_userdata_unzip_dir)
                           ? ota_userdata_unzip_dir
                           : fs::path(ota_userdata_unzip_dir).parent_path().string();
    const uint64_t room = access(path.c_str(), W_OK) == 0 ? get_free_space(path.data()) : UINT64_MAX;
    const bool is_there = room != UINT64_MAX;
    return {"room to unpack", is_there, is_there ? human_bytes(room) + " in " + path : path + " is not writable",
            format("mount a file system and create %s on it", ota_userdata_unzip_dir)};
}

BoardItem check_lock() {
    const std::string place = fs::path(default_lock_file).parent_path();
    const std::string fix = format("have %s mounted before the boot script runs tessera confirm", place.c_str());
    if (access(place.c_str(), W_OK) != 0) {
        return {"lock", false, place + because(errno), fix};
    }
    try {
        check_lock_file(default_lock_file);
        return {"lock", true, place + " is writable", fix};
    } catch (const Failure& failure) {
        return {"lock", false, failure.what(), std::string("remove ") + default_lock_file};
    }
}

} // namespace

std::vector<BoardItem> check_board() {
    std::vector<BoardItem> items = check_command_line();
    const std::set<std::string> names = partition_names();
    items.push_back({"partitions", !names.empty(), format("%zu in %s", names.size(), ota_partition_dir),
                     "have a link to each partition created there"});
    items.push_back(check_slots(names));
    items.push_back(check_room(ota_misc_partition, misc_size));
    items.push_back(check_slot_block());
    items.push_back(check_room(ota_ubootenv_partition, ubootenv_size));
    if (const int32_t medium = get_boot_medium(); medium == OTA_NAND || medium == OTA_NOR) {
        items.push_back(check_flash(names));
    }
    items.push_back(check_log_library());
    items.push_back(check_fuses());
    items.push_back(check_flash_commands(names));
    items.push_back(check_staging());
    items.push_back(check_lock());
    return items;
}

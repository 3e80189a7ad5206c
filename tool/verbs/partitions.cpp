// SPDX-License-Identifier: Apache-2.0
/** tessera partitions: the partitions by name, and what the GPT of an eMMC contains. */
#include "board/device.h"
#include "board/partition.h"
#include "console/text.h"
#include "format/gpt.h"
#include "internal/ota_paths.h"
#include "velox_ota_hl.h"
#include "verbs/verb.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <set>

namespace {

namespace fs = std::filesystem;

struct Partition {
    std::string name;
    std::string node;
    std::string slot = {}; /* "a" or "b"; empty for a partition that exists once */
    uint64_t size = 0;
    uint64_t usable = 0;      /* without the bad blocks */
    std::string problem = {}; /* why the sizes are not known */
};

/** The base names of the A/B partitions. The library fills one row for each, without a bound. */
std::set<std::string> ab_names(size_t entries) {
    constexpr size_t late = 256; /* for nodes that come into being between the two listings */
    std::vector<std::array<char, 128>> rows(entries + late);
    require(ExitCode::device, "cannot list the A/B partitions",
            [&] { return get_all_ab_partitions(reinterpret_cast<char(*)[128]>(rows.data())); });
    std::set<std::string> names;
    for (const auto& row : rows) {
        names.insert(row.data());
    }
    return names;
}

std::string node_of(const std::string& path) {
    std::error_code error;
    const fs::path target = fs::canonical(path, error);
    return error ? path : target.string();
}

Partition describe(const std::string& name, const std::set<std::string>& ab) {
    const std::string path = partition_path(name);
    Partition partition{name, node_of(path)};
    if (name.size() > 2 && ab.contains(name.substr(0, name.size() - 2)) && name[name.size() - 2] == '_') {
        partition.slot = name.back();
    }
    try {
        const Device device(path);
        partition.size = device.raw_size();
        partition.usable = device.capacity();
    } catch (const Failure& failure) {
        partition.problem = failure.what();
    }
    return partition;
}

std::vector<Partition> list_partitions() {
    const std::set<std::string> names = list_partitions_by_name();
    const std::set<std::string> ab = ab_names(names.size());
    std::vector<Partition> partitions;
    partitions.reserve(names.size());
    for (const std::string& name : names) {
        partitions.push_back(describe(name, ab));
    }
    return partitions;
}

/** The used GPT entries; the library does not check whether there is a GPT. */
std::vector<gpt_entry> read_gpt() {
    std::vector<gpt_entry> entries(gpt_entry_count);
    const std::string path = partition_path(ota_gpt_partition);
    if (get_boot_medium() != OTA_EMMC || !fs::exists(path)) {
        return {};
    }
    std::array<uint8_t, sizeof gpt_signature> head{};
    Device(path).read_raw(gpt_header_offset, head);
    if (load_le<uint64_t>(head, 0) != gpt_signature) {
        return {};
    }
    require(ExitCode::device, "cannot read the GPT", [&] { return emmc_gpt_entry_read(entries.data()); });
    std::erase_if(entries, [](const gpt_entry& entry) { return check_gpt_entry(entry).state == format_state::absent; });
    return entries;
}

std::string label(gpt_entry& entry) {
    std::array<char, std::size(decltype(entry.part_name){})> name{};
    convert_partname(entry.part_name, name.data());
    return {name.data(), strnlen(name.data(), name.size())};
}

uint64_t byte_size(const gpt_entry& entry) {
    return entry.end_lba < entry.start_lba ? 0 : (entry.end_lba - entry.start_lba + 1) * gpt_sector;
}

void show_partitions(const Context& context) {
    Json partitions = Json::array();
    Json gpt = Json::array();
    std::vector<std::vector<std::string>> rows;
    std::vector<std::vector<std::string>> gpt_rows;
    for (const Partition& part : list_partitions()) {
        const bool known = part.problem.empty();
        partitions.push_back({{"name", part.name},
                              {"slot", part.slot.empty() ? Json() : Json(part.slot)},
                              {"size", known ? Json(part.size) : Json()},
                              {"usable", known ? Json(part.usable) : Json()},
                              {"device", part.node}});
        rows.push_back({part.name, part.slot, known ? human_bytes(part.size) : "unknown",
                        known ? human_bytes(part.usable) : "unknown", known ? part.node : part.problem});
    }
    for (gpt_entry& entry : read_gpt()) {
        const std::string name = label(entry);
        gpt.push_back({{"name", name},
                       {"first_sector", entry.start_lba},
                       {"last_sector", entry.end_lba},
                       {"size", byte_size(entry)}});
        gpt_rows.push_back(
            {name, std::to_string(entry.start_lba), std::to_string(entry.end_lba), human_bytes(byte_size(entry))});
    }
    std::string text = table({"partition", "slot", "size", "usable", "device"}, rows);
    if (!gpt_rows.empty()) {
        text += "\n" + table({"GPT entry", "first sector", "last sector", "size"}, gpt_rows);
    }
    context.show({{"partitions", partitions}, {"gpt", gpt}}, text);
}

} // namespace

void declare_partitions(Command& verb, Context& context) {
    on_command(verb, context, [&context] { show_partitions(context); });
}

// SPDX-License-Identifier: Apache-2.0
#include "board/partition.h"

#include "board/device.h"
#include "console/console.h"
#include "console/text.h"
#include "internal/ota_paths.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Opening anything except a file or a device could block or yield nothing to read. */
void demand_file(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
        throw Failure(ExitCode::failed, "cannot open " + path + because(errno));
    }
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode) && !S_ISCHR(status.st_mode)) {
        throw Failure(ExitCode::failed, path + " is neither a regular file nor a device");
    }
}

} // namespace

bool is_board() {
    std::error_code ignored;
    return std::filesystem::is_directory(ota_partition_dir, ignored);
}

std::set<std::string> list_partitions_by_name() {
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(ota_partition_dir, error), end; !error && entry != end;
         entry.increment(error)) {
        names.insert(entry->path().filename());
    }
    if (error) {
        throw Failure(ExitCode::device, std::string("cannot list ") + ota_partition_dir + ": " + error.message(),
                      "tessera board --check");
    }
    return names;
}

std::string partition_path(const std::string& name) {
    char untouched[sizeof ota_file_info_t::path];
    char path[sizeof ota_file_info_t::path];
    require(ExitCode::device, "cannot locate the partition " + name,
            [&] { return get_part_device_name(name.c_str(), untouched, path, PERMANENT); });
    return path;
}

std::string existing_partition(const std::string& name) {
    std::string path = partition_path(name);
    if (!is_board()) {
        throw Failure(ExitCode::device, std::string("this machine is not a board: it has no ") + ota_partition_dir,
                      "tessera board --check");
    }
    if (!std::filesystem::exists(path)) {
        throw Failure(ExitCode::device, "the board has no " + path, "tessera board --check");
    }
    return path;
}

std::string file_or_partition(const std::string& name) {
    std::error_code ignored;
    if (name.find('/') != std::string::npos || std::filesystem::exists(name, ignored)) {
        demand_file(name);
        return name;
    }
    std::string path = partition_path(name);
    if (!std::filesystem::exists(path)) {
        throw Failure(ExitCode::failed, "no such file or partition: " + name, "tessera partitions");
    }
    return path;
}

ota_file_info_t locate(const std::string& name) {
    ota_file_info_t place{};
    existing_partition(name).copy(place.path, sizeof place.path - 1);
    place.medium = static_cast<ota_medium_e>(get_boot_medium());
    return place;
}

void read_record(const std::string& partition, uint64_t offset, std::span<uint8_t> record) {
    ota_file_info_t place = locate(partition);
    place.offset = offset;
    const int32_t got = require(ExitCode::device, "cannot read " + partition, [&] {
        return ota_file_to_buf(&place, reinterpret_cast<char*>(record.data()), record.size());
    });
    if (static_cast<size_t>(got) != record.size()) {
        throw Failure(ExitCode::device, partition + " ends before its record");
    }
}

void sync_partition(const std::string& name) {
    sync_device(partition_path(name));
}

// SPDX-License-Identifier: Apache-2.0
/** For any package, search, sum, streaming and the command's own reader agree. */
#include "box.h"
#include "console/failure.h"
#include "ota_partition.h"
#include "package/package.h"
#include "vx_zip.h"
#include "vx_zip_entry.h"

/** Reads as the command does. The sums are the library's; the total is -1 if it refuses to add up. */
static void read_package(const std::string& path, int64_t total, uint64_t images) {
    const Package package(path);
    uint64_t all = 0, image_sum = 0;
    for (const Entry& entry : package.entries()) {
        all += entry.size;
        image_sum += entry.is_image() ? entry.size : 0;
    }
    must(total < 0 || (static_cast<uint64_t>(total) == all && images == image_sum));
    for (const Entry& entry : package.entries()) {
        uint64_t done = 0;
        must(package.read(entry, [&done](auto piece) { return done += piece.size(), true; }) && done == entry.size);
    }
}

/** Whether a file is what the command reads of the entry, or the command reads nothing. */
static bool holds_entry(const std::string& path, const char* name, const char* file) {
    std::ifstream stream(file, std::ios::binary);
    const std::string unpacked(std::istreambuf_iterator<char>(stream), {});
    try {
        return Package(path).text(name, unpacked.size()) == unpacked;
    } catch (const Failure&) {
        return true;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string package = put_input(data, size);
    uint64_t images = 0;
    const int64_t total = vx_get_zip_size(package.c_str(), &images);
    must(total == -1 || (total >= 0 && images <= static_cast<uint64_t>(total)));
    try {
        read_package(package, total, images);
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused);
    }
    const unzFile uf = unzOpen64(package.c_str());
    unz_global_info64 all{}; /* a package may claim to have none of its entries */
    unz_file_info64 info;
    char name[256] = {};
    if (unzGetGlobalInfo64(uf, &all) == UNZ_OK && all.number_entry > 0 &&
        unzGetCurrentFileInfo64(uf, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0) == UNZ_OK) {
        uint64_t claimed = 0;
        must(zip_entry_size(uf, info, &claimed));
        must(vx_zip_has_file(package.c_str(), name) == 1 && (total < 0 || claimed <= static_cast<uint64_t>(total)));
        ota_file_info_t node = {0, 0, OTA_EMMC, "node"};
        std::ofstream(node.path).flush();
        const int32_t result = vx_uncompress_file_to(package.c_str(), name, &node, nullptr);
        must(result != 0 || (node.offset == claimed && fs::file_size(node.path) == claimed));
        must(result != 0 || holds_entry(package, name, node.path));
    }
    unzClose(uf);
    return 0;
}

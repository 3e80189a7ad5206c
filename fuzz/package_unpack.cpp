// SPDX-License-Identifier: Apache-2.0
/** For any package, nothing outside the destination changes; after a success the sizes are as claimed. */
#include "box.h"
#include "vx_zip.h"
#include "vx_zip_entry.h"

#include <algorithm>
#include <map>

/** All names, modes and sizes outside the destination. */
static std::string outside() {
    std::string all;
    for (const char* dir : {".", "outside", "outside/dir"}) {
        for (const fs::directory_entry& at : fs::directory_iterator(dir)) {
            std::error_code none;
            const auto mode = at.path() == "./dest" ? fs::perms::none : at.symlink_status().permissions();
            all += at.path().string() + std::to_string(fs::file_size(at, none) << 12 | unsigned(mode)) + '\n';
        }
    }
    return all;
}

/** Links do not change, so they still lead where a file was written through them. */
static bool sizes_hold(const std::string& package) {
    std::map<fs::path, uint64_t> sizes; /* the last entry counts */
    const unzFile uf = unzOpen64(package.c_str());
    unz_global_info64 claimed;
    must(unzGetGlobalInfo64(uf, &claimed) == UNZ_OK);
    /* Entries past the claimed number do not count, although minizip reads them. */
    for (uint64_t i = 0; i < claimed.number_entry; ++i) {
        unz_file_info64 info;
        char name[256] = {};
        must(i == 0 || unzGoToNextFile(uf) == UNZ_OK);
        must(unzGetCurrentFileInfo64(uf, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0) == UNZ_OK);
        std::error_code missing;
        const fs::path path = fs::canonical(std::string("dest/") + name, missing);
        if (!missing && fs::is_regular_file(path) && info.external_fa >> 28 != 0xA) {
            must(zip_entry_size(uf, info, &sizes[path]));
        }
    }
    unzClose(uf);
    return std::ranges::all_of(sizes, [](const auto& file) { return fs::file_size(file.first) == file.second; });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string package = put_input(data, size);
    fs::create_directories("dest");
    fs::create_directories("outside/dir");
    std::ofstream("outside/file") << "keep";
    const std::string before = outside();
    const int32_t result = vx_uncompress(package.c_str(), "dest");
    must(outside() == before && (result != 0 || sizes_hold(package)));
    fs::remove_all("dest");
    return 0;
}

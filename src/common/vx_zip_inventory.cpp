// SPDX-License-Identifier: Apache-2.0
/** Inventory of zip packages: what they contain and how large it is, read without unpacking. */
#include "vx_zip.h"

#include "minizip_owner.h"
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_utils.h"
#include "vx_zip_destination.h"
#include "vx_zip_entry.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <iterator>
#include <unistd.h>

namespace {

/** A name too long to be checked counts as an image. */
bool is_image(const char* name) {
    return std::any_of(std::begin(zip_image_extensions), std::end(zip_image_extensions),
                       [name](const char* extension) { return is_xxx_file(name, extension) != 0; });
}

/** Adds `size` to a sum that has to stay within 63 bits. */
bool add_size(uint64_t* sum, uint64_t size) {
    uint64_t total = 0;
    if (__builtin_add_overflow(*sum, size, &total) || total > INT64_MAX) {
        return false;
    }
    *sum = total;
    return true;
}

/** Adds up an entry. The caller's initial value of `img_size` is not checked. */
bool add_entry(const char* zipfile, unzFile uf, const zip_entry& entry, uint64_t* img_size, uint64_t* total_size) {
    uint64_t size = 0;
    if (!zip_entry_size(uf, entry.info, &size)) {
        return false;
    }
    ota_log_debug("file name in zip:%s\n", entry.name);
    if (is_image(entry.name)) {
        *img_size += size;
    }
    if (!add_size(total_size, size)) {
        ota_log_error("sizes in %s overflow\n", zipfile);
        return false;
    }
    ota_log_debug("len:%llu\n", static_cast<unsigned long long>(size));
    return true;
}

/** The next package of a directory: a regular file with the extension zip. Null at the end. */
const char* next_package(DIR* dir) {
    while (const dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 || entry->d_type != DT_REG) {
            continue;
        }
        if (is_xxx_file(name, "zip") != 0) {
            return name;
        }
    }
    return nullptr;
}

/**
 * The largest total of the packages in the working directory, which `path` also names. The packages are
 * opened relative to the working directory.
 */
int64_t max_package_size(const char* path) {
    const ota_directory dir(opendir(path));
    if (dir == nullptr) {
        ota_log_error("Open dir error...\n");
        return -1;
    }
    int64_t max_size = 0;
    while (const char* name = next_package(dir.get())) {
        uint64_t img_size = 0;
        const int64_t tmp_size = vx_get_zip_size(name, &img_size);
        if (tmp_size < 0) {
            ota_log_error("get zip size error\n");
            return -1;
        }
        ota_log_info("zip name:%s, zip size:%ld\n", name, tmp_size);
        max_size = tmp_size > max_size ? tmp_size : max_size;
    }
    return max_size;
}

} // namespace

int32_t vx_zip_has_file(const char* zipfile, char* file_name) {
    if (zipfile == nullptr) {
        ota_log_error("error:no zip file\n");
        return -1;
    }
    if (file_name == nullptr) {
        ota_log_error("file_name is null\n");
        return -1;
    }
    const ota_package uf(unzOpen64(zipfile));
    if (uf == nullptr) {
        ota_log_error("open %s failed\n", zipfile);
        return -1;
    }
    const size_t length = std::strlen(file_name);
    zip_walk entries = zip_walk_begin(uf.get());
    zip_entry entry;
    while (zip_walk_next(&entries, &entry)) {
        if (std::strncmp(entry.name, file_name, length) == 0) {
            ota_log_info("in zip has file:%s\n", file_name);
            return 1;
        }
    }
    return entries.state == zip_walk_state::unreadable ? -1 : 0;
}

int64_t vx_get_zip_size(const char* zipfile, uint64_t* img_size) {
    if (zipfile == nullptr) {
        ota_log_error("no zip file\n");
        return -1;
    }
    if (img_size == nullptr) {
        ota_log_error("img_size is null\n");
        return -1;
    }
    const ota_package uf(unzOpen64(zipfile));
    if (uf == nullptr) {
        ota_log_error("open %s failed\n", zipfile);
        return -1;
    }
    uint64_t total_size = 0;
    zip_walk entries = zip_walk_begin(uf.get());
    zip_entry entry;
    while (zip_walk_next(&entries, &entry)) {
        if (!add_entry(zipfile, uf.get(), entry, img_size, &total_size)) {
            return -1;
        }
    }
    return entries.state == zip_walk_state::unreadable ? -1 : static_cast<int64_t>(total_size);
}

int64_t vx_all_image_size(const char* path) {
    if (path == nullptr) {
        ota_log_error("no zip file\n");
        return -1;
    }
    const ota_directory dir(opendir(path));
    if (dir == nullptr) {
        ota_log_error("Open dir error...\n");
        return -1;
    }
    uint64_t total_size = 0;
    while (const char* name = next_package(dir.get())) {
        uint64_t tmp_size = 0;
        const int64_t size = vx_get_zip_size(name, &tmp_size);
        ota_log_info("zip name:%s, image size:%lu\n", name, tmp_size);
        if (size < 0) {
            ota_log_error("get zip size error\n");
            return -1;
        }
        if (!add_size(&total_size, tmp_size)) {
            ota_log_error("sizes in %s overflow\n", path);
            return -1;
        }
    }
    return static_cast<int64_t>(total_size);
}

int64_t vx_get_max_zip_size(const char* path) {
    char dir_path[ota_path_size];
    if (!zip_save_working_directory(dir_path)) {
        return -1;
    }
    if (path == nullptr) {
        ota_log_error("no zip file\n");
        return -1;
    }
    if (chdir(path) != 0) {
        ota_log_error("change dir:%s failed \n", path);
        return -1;
    }
    const int64_t max_size = max_package_size(path);
    if (max_size < 0) {
        return -1;
    }
    if (chdir(dir_path) != 0) {
        ota_log_error("change dir:%s failed \n", dir_path);
        return -1;
    }
    return max_size;
}

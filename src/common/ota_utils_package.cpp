// SPDX-License-Identifier: Apache-2.0
/** File names and package files, staged unpacking, and small file-system queries. */
#include "ota_log.h"
#include "ota_paths.h"
#include "ota_staging.h"
#include "ota_types.h"
#include "ota_utils.h"
#include "vx_zip.h"
#include "vx_zip_entry.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr uint64_t no_free_space_known = UINT64_MAX;

/** The largest number, which no file system has free, for a size near it. */
int64_t needed_space(int64_t size) {
    return size > INT64_MAX - ota_staging_headroom ? INT64_MAX : ota_staging_kib(size);
}

bool check_room(const char* zip_path, uint64_t* img_size) {
    char userdata[sizeof ota_userdata_unzip_dir];
    std::memcpy(userdata, ota_userdata_unzip_dir, sizeof userdata);
    const int64_t ota_need_size = needed_space(vx_get_zip_size(zip_path, img_size));
    const uint64_t free_bytes = get_free_space(userdata);
    if (free_bytes == no_free_space_known) {
        ota_log_error("get ota file dir free space error!\n");
        return false;
    }
    const auto ota_free_size = static_cast<int64_t>(free_bytes >> 10);
    ota_log_info("ota file dir free space:%" PRId64 ", unzip need space:%" PRId64 "!\n", ota_free_size, ota_need_size);
    if (ota_free_size <= ota_need_size) {
        ota_log_error("ota file dir free space:%" PRId64 " is not enough for file unzip need space:%" PRId64 "!\n",
                      ota_free_size, ota_need_size);
        return false;
    }
    return true;
}

/** Extracts the program from the package that `token` names. */
int32_t extract_ota_process(const char* token, char* process_path, uint32_t len) {
    if (token[0] != '/') {
        ota_log_error("Please use absolute path: %s\n", token);
        return -OTAERR_NULLPOINTER;
    }
    if (access(token, F_OK) != 0) {
        ota_log_error("cannot read file: %s\n", token);
        return -OTAERR_NO_EXISTS;
    }
    /* The caller runs it, and the target of a link is not part of the package. */
    if (zip_extract_regular_file(token, ota_process_dir, ota_process_name) != 0) {
        ota_log_error("get system upgrade process [%s] failed\n", ota_process_name);
        return -OTAERR_UNZIP;
    }
    (void)std::snprintf(process_path, len, "%s/%s", ota_process_dir, ota_process_name);
    return 0;
}

} // namespace

int32_t is_xxx_file(const char* file, const char* cmp_name) {
    constexpr size_t name_limit = 128;
    if (file == nullptr) {
        ota_log_error("file name is invalid\n");
        return -1;
    }
    if (cmp_name == nullptr) {
        ota_log_error("cmp_name is null\n");
        return -1;
    }
    if (strnlen(file, name_limit) == name_limit) {
        ota_log_error("file name is too len\n");
        return -1;
    }
    const char* slash = std::strrchr(file, '/');
    const char* component = slash == nullptr ? file : slash + 1;
    const char* dot = std::strrchr(component, '.');
    const char* extension = dot == nullptr ? "" : dot + 1;
    return std::strcmp(extension, cmp_name) == 0 ? 1 : 0;
}

int32_t ota_check_file(const char* package_path, const char* suffix) {
    if (package_path == nullptr || suffix == nullptr) {
        return -1;
    }
    if (access(package_path, F_OK) != 0) {
        ota_log_error("ota upgrde file:%s not exist!\n", package_path);
        return -1;
    }
    return is_xxx_file(package_path, suffix) == 0 ? -1 : 0;
}

int32_t unzip_ota_file(const char* zip_path, const char* unzip_dir, uint64_t* img_size) {
    if (unzip_dir == nullptr) {
        ota_log_error("unzip_dir is null\n");
        return -1;
    }
    const bool exempt = std::strncmp(unzip_dir, ota_tmp_unzip_dir, sizeof ota_tmp_unzip_dir - 1) == 0;
    if (!exempt && img_size == nullptr) {
        ota_log_error("img_size is null\n");
        return -1;
    }
    if (makedir(unzip_dir) != 0) {
        ota_log_error("make ota unzip file dir error!\n");
        return -1;
    }
    if (!exempt && !check_room(zip_path, img_size)) {
        return -1;
    }
    if (vx_uncompress(zip_path, unzip_dir) < 0) {
        ota_log_error("uncompress %s to %s failed!\n", zip_path == nullptr ? "(null)" : zip_path, unzip_dir);
        return -1;
    }
    return 0;
}

int32_t get_ota_process(const char* zip_path, char* process_path, uint32_t len) {
    if (zip_path == nullptr || (process_path == nullptr && len > 0)) {
        ota_log_error("%s is null\n", zip_path == nullptr ? "zip_path" : "process_path");
        return -OTAERR_NULLPOINTER;
    }
    char path_tmp[512] = {};
    (void)std::snprintf(path_tmp, sizeof path_tmp, "%s", zip_path);
    if (path_tmp[0] == '\0') {
        ota_log_error("No update file selected\n");
        return -OTAERR_NULLPOINTER;
    }
    char* rest = path_tmp;
    while (const char* token = strsep(&rest, ";")) {
        if (token[0] != '\0') {
            return extract_ota_process(token, process_path, len);
        }
    }
    return -OTAERR_NULLPOINTER;
}

uint64_t get_free_space(char* path) {
    if (path == nullptr) {
        ota_log_error("path is NULL!\n");
        return no_free_space_known;
    }
    struct statvfs cur {};
    if (statvfs(path, &cur) != 0) {
        ota_log_error("Stat from %s failed!\n", path);
        return no_free_space_known;
    }
    return uint64_t{cur.f_bsize} * uint64_t{cur.f_bavail};
}

long int get_file_size(const char* file_path) {
    if (file_path == nullptr) {
        ota_log_error("file ptr is empty\n");
        return -1;
    }
    struct stat status {};
    return stat(file_path, &status) == 0 ? status.st_size : -1;
}

char* ota_get_file_name(char* file_path) {
    if (file_path == nullptr) {
        ota_log_error("file_path is null\n");
        return nullptr;
    }
    char* const slash = std::strrchr(file_path, '/');
    return slash == nullptr ? nullptr : slash + 1;
}

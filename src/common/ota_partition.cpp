// SPDX-License-Identifier: Apache-2.0
/**
 * Transfers of one piece (block branch and flash branch), streaming of whole images, and the flash
 * command record.
 */
#include "ota_partition.h"

#include "flash_command.h"
#include "minizip_owner.h"
#include "ota_log.h"
#include "ota_nand_update.h"
#include "ota_owner.h"
#include "ota_paths.h"
#include "ota_types.h"
#include "vx_zip_entry.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(size_t) == 8); /* the size of a command with the largest data area fits */

namespace {

/* Every chunk opens and closes its devices, so chunks are large. */
uint8_t g_flash_buf[2099200];
uint8_t g_mmc_buf[10485760];

/* ---- block branch ---- */

/** Seeks a newly opened descriptor to the start of the transfer. */
bool seek_to_offset(const ota_descriptor& fd, const ota_file_info_t* file) {
    const auto offset = static_cast<off_t>(file->offset);
    if (lseek(fd.get(), offset, SEEK_SET) < 0) {
        ota_log_error("file %s lseek failed, offset=%ld\n", file->path, offset);
        return false;
    }
    return true;
}

ssize_t vx_block_read(ota_file_info_t* ori_file, void* in_buf, size_t in_size) {
    const ota_descriptor fd(open(ori_file->path, O_RDONLY));
    if (!fd.is_open()) {
        ota_log_error("open file: %s failed\n", ori_file->path);
        return -1;
    }
    if (!seek_to_offset(fd, ori_file)) {
        return -1;
    }
    const ssize_t len = read(fd.get(), in_buf, in_size);
    if (len < 0) {
        ota_log_error("file %s read failed\n", ori_file->path);
        return -1;
    }
    return len;
}

ssize_t vx_block_write(ota_file_info_t* dest_file, const void* in_buf, size_t in_size) {
    const ota_descriptor fd(open(dest_file->path, O_WRONLY));
    if (!fd.is_open()) {
        ota_log_error("open file:%s failed\n", dest_file->path);
        return -1;
    }
    if (!seek_to_offset(fd, dest_file)) {
        return -1;
    }
    const ssize_t len = write(fd.get(), in_buf, in_size);
    if (len < 0) {
        ota_log_error("file %s write failed\n", dest_file->path);
        return -1;
    }
    return len;
}

/* ---- flash branch ---- */

using flash_transfer = ssize_t (*)(int fd, void* in_buf, size_t in_size, size_t offset);

/** The text that identifies the kind of a flash device: the target of a link, else the path itself. */
bool read_kind_text(const char* path, std::span<char> rel_path) {
    std::fill(rel_path.begin(), rel_path.end(), '\0');
    struct stat status {};
    if (lstat(path, &status) != 0) {
        ota_log_error("lstat %s failed\n", path);
        return false;
    }
    if (!S_ISLNK(status.st_mode)) {
        (void)std::snprintf(rel_path.data(), rel_path.size(), "%s", path);
        return true;
    }
    if (readlink(path, rel_path.data(), rel_path.size() - 1) < 0) {
        ota_log_error("readlink %s failed\n", path);
        return false;
    }
    return true;
}

ssize_t flash_access(const ota_file_info_t* file, void* in_buf, size_t in_size, flash_transfer mtd,
                     flash_transfer ubi) {
    char rel_path[ota_path_size];
    if (!read_kind_text(file->path, rel_path)) {
        return -1;
    }
    const ota_descriptor fd(open(file->path, O_RDWR));
    if (!fd.is_open()) {
        ota_log_error("open file: %s failed\n", file->path);
        return -1;
    }
    if (std::strstr(rel_path, "mtd") != nullptr) {
        return mtd(fd.get(), in_buf, in_size, file->offset);
    }
    if (std::strstr(rel_path, "ubi") != nullptr) {
        return ubi(fd.get(), in_buf, in_size, file->offset);
    }
    ota_log_error("%s is neither an MTD device nor a UBI volume\n", file->path);
    return -1;
}

ssize_t vx_flash_read(ota_file_info_t* ori_file, void* in_buf, size_t in_size) {
    return flash_access(ori_file, in_buf, in_size, vx_mtd_read, vx_ubi_read);
}

ssize_t vx_flash_write(ota_file_info_t* dest_file, void* in_buf, size_t in_size) {
    return flash_access(dest_file, in_buf, in_size, vx_mtd_write, vx_ubi_write);
}

bool is_block_medium(ota_medium_e medium) {
    return medium == OTA_EMMC || medium == OTA_RAW;
}

/* ---- streaming ---- */

/** The static buffer for a destination. */
std::span<uint8_t> burn_buffer(ota_medium_e medium) {
    if (medium == OTA_NOR || medium == OTA_NAND) {
        return g_flash_buf;
    }
    return g_mmc_buf;
}

int32_t write_chunk(ota_file_info_t* dest_file, std::span<const uint8_t> chunk) {
    return ota_buf_to_file(dest_file, reinterpret_cast<const char*>(chunk.data()), chunk.size());
}

/** Locates the entry in `uf` and opens it. */
int32_t open_entry(unzFile uf, const char* file, zip_entry_data* data) {
    int32_t ret = unzLocateFile(uf, file, 0);
    if (ret != UNZ_OK) {
        ota_log_error("Cannot find file in zip: %s\n", file);
        return ret;
    }
    unz_file_info64 ci{};
    ret = unzGetCurrentFileInfo64(uf, &ci, nullptr, 0, nullptr, 0, nullptr, 0);
    if (ret != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGetCurrentFileInfo\n", ret);
        return ret;
    }
    uint64_t size = 0;
    if (!zip_entry_deliverable_size(uf, ci, file, &size)) {
        return -1;
    }
    ret = unzOpenCurrentFile(uf);
    if (ret != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzipOpenCurrentFile\n", ret);
        return ret;
    }
    *data = zip_entry_begin(uf, size, ci);
    return 0;
}

/** Copies the open entry to the destination, chunk by chunk. */
int32_t stream_entry(zip_entry_data* data, ota_file_info_t* dest_file, void (*read_cb)(int32_t)) {
    const std::span<uint8_t> burn_buf = burn_buffer(dest_file->medium);
    while (true) {
        const int32_t len = zip_entry_read(data, burn_buf.data(), static_cast<uint32_t>(burn_buf.size()));
        if (len < 0) {
            ota_log_error("error %d with zipfile in unzReadCurrentFile\n", len);
            unzCloseCurrentFile(data->uf);
            return len;
        }
        if (len > 0 && write_chunk(dest_file, burn_buf.first(static_cast<size_t>(len))) != len) {
            unzCloseCurrentFile(data->uf);
            ota_log_error("error in writing extracted file %d\n", len);
            return -1;
        }
        dest_file->offset += static_cast<uint64_t>(len);
        if (read_cb != nullptr) {
            read_cb(len);
        }
        if (len < 1) {
            return 0;
        }
    }
}

/* ---- flash command ---- */

/** Loads and checks the fixed part of a command file. */
bool read_flashcmd(const char* cmd, fimage_update_t* cmd_raw) {
    char cmd_path[256];
    (void)std::snprintf(cmd_path, sizeof cmd_path, "%s/%s", ota_flashcmd_dir, cmd);
    const ota_stream fpread(std::fopen(cmd_path, "r"));
    if (fpread == nullptr) {
        ota_log_error("open flashcmd: %s failed\n", cmd_path);
        return false;
    }
    if (std::fread(cmd_raw, sizeof *cmd_raw, 1, fpread.get()) != 1) {
        ota_log_error("read cmd failed\n");
        return false;
    }
    if (check_flash_command(*cmd_raw).state != format_state::valid) {
        ota_log_error("Invalid flash cmd magic: %x\n", cmd_raw->magic);
        return false;
    }
    return true;
}

int32_t write_flashcmd_node(const uint8_t* cmd_buf, size_t cmd_bufsize) {
    const ota_descriptor fd_write(open(ota_flashcmd_node, O_WRONLY));
    if (!fd_write.is_open()) {
        ota_log_error("open flashcmd node: %s failed\n", ota_flashcmd_node);
        return -1;
    }
    if (write(fd_write.get(), cmd_buf, cmd_bufsize) < 0) {
        ota_log_error("write cmd failed\n");
        return -1;
    }
    return 0;
}

} // namespace

int32_t ota_file_to_buf(ota_file_info_t* ori_file, char* buffer, uint64_t buf_len) {
    if (ori_file == nullptr || buffer == nullptr) {
        ota_log_error("file info is null\n");
        return -1;
    }
    const ssize_t len = is_block_medium(ori_file->medium) ? vx_block_read(ori_file, buffer, buf_len)
                                                          : vx_flash_read(ori_file, buffer, buf_len);
    return static_cast<int32_t>(len);
}

int32_t ota_buf_to_file(ota_file_info_t* dest_file, const char* buffer, uint64_t buf_len) {
    if (dest_file == nullptr || buffer == nullptr) {
        ota_log_error("file info is null\n");
        return -1;
    }
    /* The flash operations share one type for both directions; a write only reads the buffer. */
    const ssize_t len = is_block_medium(dest_file->medium)
                            ? vx_block_write(dest_file, buffer, buf_len)
                            : vx_flash_write(dest_file, const_cast<char*>(buffer), buf_len);
    return static_cast<int32_t>(len);
}

int32_t ota_file_to_file(ota_file_info_t* ori_file, ota_file_info_t* dest_file, void (*read_cb)(int32_t)) {
    if (ori_file == nullptr || dest_file == nullptr) {
        ota_log_error("file info is null\n");
        return -1;
    }
    const std::span<uint8_t> burn_buf = burn_buffer(dest_file->medium);
    uint64_t r_total_bytes = 0;
    while (r_total_bytes < ori_file->size) {
        const uint64_t r_bytes = std::min<uint64_t>(burn_buf.size(), ori_file->size - r_total_bytes);
        std::fill(burn_buf.begin(), burn_buf.end(), uint8_t{0});
        const int32_t len = ota_file_to_buf(ori_file, reinterpret_cast<char*>(burn_buf.data()), r_bytes);
        if (len == 0) {
            return 0;
        }
        if (len < 0) {
            ota_log_error("read %s image error\n", ori_file->path);
            return -1;
        }
        const auto count = static_cast<size_t>(len);
        if (write_chunk(dest_file, burn_buf.first(count)) != len) {
            ota_log_error("write %s image, len %d error\n", dest_file->path, len);
            return -1;
        }
        ori_file->offset += count;
        dest_file->offset += count;
        r_total_bytes += count;
        if (read_cb != nullptr) {
            read_cb(len);
        }
    }
    return 0;
}

int32_t vx_uncompress_file_to(const char* src, const char* file, ota_file_info_t* dest_file, void (*read_cb)(int32_t)) {
    if (src == nullptr || file == nullptr || dest_file == nullptr) {
        ota_log_error("package, entry or destination is null\n");
        return -1;
    }
    const ota_package uf = zip_open_package(src);
    if (uf == nullptr) {
        return -1;
    }
    zip_entry_data data{};
    const int32_t ret = open_entry(uf.get(), file, &data);
    return ret != 0 ? ret : stream_entry(&data, dest_file, read_cb);
}

int32_t ota_write_flashcmd(const char* cmd, char* misc_data, uint32_t data_len, uint32_t offset) {
    if (cmd == nullptr) {
        return -OTAERR_NULLPOINTER;
    }
    fimage_update_t cmd_raw;
    if (!read_flashcmd(cmd, &cmd_raw)) {
        return -1;
    }
    const bool has_data_area = std::strcmp(cmd, flash_command_with_data) == 0;
    const uint32_t area_size = flash_command_area_size(cmd_raw);
    if (uint64_t{data_len} + offset > area_size) {
        ota_log_error("Misc data out of range\n");
        return -1;
    }
    if (has_data_area && misc_data == nullptr && data_len > 0) {
        ota_log_error("misc data is null\n");
        return -OTAERR_NULLPOINTER;
    }
    const size_t cmd_bufsize = sizeof cmd_raw + (has_data_area ? area_size : size_t{0});
    const ota_memory<uint8_t> cmd_buf(static_cast<uint8_t*>(std::calloc(cmd_bufsize, 1)));
    if (cmd_buf == nullptr) {
        ota_log_error("malloc failed\n");
        return -OTAERR_MALLOC;
    }
    std::memcpy(cmd_buf.get(), &cmd_raw, sizeof cmd_raw);
    if (has_data_area && data_len > 0) {
        std::memcpy(cmd_buf.get() + sizeof cmd_raw + offset, misc_data, data_len);
    }
    return write_flashcmd_node(cmd_buf.get(), cmd_bufsize);
}

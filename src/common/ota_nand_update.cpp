// SPDX-License-Identifier: Apache-2.0
/**
 * Access to MTD devices and UBI volumes. One read-modify-write for both media.
 *
 * Invariants of a write:
 *  1. Every refusal comes before the first erase.
 *  2. A block is erased only after all of it was read.
 *  3. old_data holds the good blocks of the range one after the other, and `blocks` holds their numbers:
 *     each is written back to the block it came from, or not at all.
 *  4. When reading or erasing fails, the old content of the blocks erased so far is written back and none of
 *     the new data reaches the medium. The block that failed is not written.
 *  5. After a negative result the new data must not be treated as stored.
 *  6. A status is an int: 0, or the negative number that the call returns. A ssize_t counts bytes.
 */
#include "ota_nand_update.h"

#include "device_request.h"
#include "ota_log.h"
#include "ota_owner.h"

#include <climits>
#include <cstring>
#include <unistd.h>

namespace {

/** The blocks of the current write. A block is an erase block or a LEB; block numbers count from 0. */
struct block_range {
    int fd;
    size_t block_size;
    size_t device_size; /* end of the search for bad blocks; 0 on a medium without any */
    long long start;
    long long end; /* one past the last; increases with each bad block found */
    size_t count;  /* good blocks in the range */
    ota_memory<uint8_t> old_data;
    ota_memory<long long> blocks; /* number of the block that each piece of old_data came from */
};

/** What the read-modify-write needs of a medium. */
struct flash_medium {
    const char* read_name;
    ssize_t (*read)(int fd, void* in_buf, size_t in_size, size_t offset);
    bool (*check_bad)(const block_range& range, long long ofs);
    const char* erase_name;
    int (*erase)(const block_range& range, long long ofs);
    int (*allow_writes)(int fd);
};

/** The status of a request that did not return 0. A positive result must not be mistaken for a byte count. */
int request_failure(int ret) {
    return ret < 0 ? ret : -1;
}

/* ---- MTD ---- */

int get_mtd_info(int fd, mtd_geometry* info) {
    const int ret = mtd_get_geometry(fd, info);
    if (ret != 0) {
        ota_log_error("ioctl get MEMGETINFO failed, error%d\n", ret);
    }
    return ret;
}

int mtd_ask_bad(int fd, long long ofs, size_t block_size) {
    return mtd_get_bad_block(fd, static_cast<uint64_t>(ofs) * block_size);
}

/** An error counts as bad. A block past the end of the device is not checked: reading it ends the range. */
bool mtd_check_bad(const block_range& range, long long ofs) {
    if (static_cast<size_t>(ofs) * range.block_size >= range.device_size ||
        mtd_ask_bad(range.fd, ofs, range.block_size) == 0) {
        return false;
    }
    ota_log_info("block-%lld is bad block, skipping\n", ofs);
    return true;
}

int mtd_erase_block(const block_range& range, long long ofs) {
    return mtd_erase(range.fd, static_cast<uint64_t>(ofs) * range.block_size, range.block_size);
}

int mtd_allow_writes(int /*fd*/) {
    return 0;
}

constexpr flash_medium mtd_medium = {"vx_mtd_read", vx_mtd_read,     mtd_check_bad,
                                     "MEMERASE64",  mtd_erase_block, mtd_allow_writes};

/**
 * Moves the range past the bad blocks before it, so that exactly range.start good blocks come before it:
 * adjacent ranges then agree on the place of each block. On a device with fewer good blocks the range
 * starts at the end of the device, where reading its first block ends the write.
 */
void move_past_bad_blocks(block_range& range) {
    const long long length = range.end - range.start;
    long long ofs = 0;
    for (long long good = 0; good < range.start; ++ofs) {
        if (static_cast<size_t>(ofs) * range.block_size >= range.device_size) {
            break;
        }
        if (mtd_ask_bad(range.fd, ofs, range.block_size) == 0) {
            ++good;
        } else {
            ota_log_info("block-%lld is bad block before offset\n", ofs);
        }
    }
    range.start = ofs;
    range.end = ofs + length;
}

/* ---- UBI ---- */

int get_ubi_info(int fd, ubi_geometry* info) {
    const int ret = ubi_get_geometry(fd, info);
    if (ret != 0) {
        ota_log_error("ioctl get UBI_IOCVOLINFO failed, error%d\n", ret);
    }
    return ret;
}

bool ubi_check_bad(const block_range& /*range*/, long long /*ofs*/) {
    return false;
}

int ubi_erase_block(const block_range& range, long long ofs) {
    return ubi_erase_leb(range.fd, static_cast<int32_t>(ofs));
}

int ubi_allow_writes(int fd) {
    const int ret = ubi_allow_direct_writes(fd);
    if (ret != 0) {
        ota_log_error("ioctl set UBI_IOCSETVOLPROP failed, error%d\n", ret);
    }
    return ret;
}

constexpr flash_medium ubi_medium = {"vx_ubi_read", vx_ubi_read,     ubi_check_bad,
                                     "UBI_IOCEBER", ubi_erase_block, ubi_allow_writes};

/* ---- the read-modify-write ---- */

/** The blocks of the bytes from `offset` to `offset` + `in_size`, which does not overflow. */
block_range range_of(int fd, size_t block_size, size_t device_size, size_t in_size, size_t offset) {
    const size_t end = offset + in_size;
    block_range range{};
    range.fd = fd;
    range.block_size = block_size;
    range.device_size = device_size;
    range.start = static_cast<long long>(offset / block_size);
    range.end = static_cast<long long>(end / block_size + (end % block_size != 0 ? 1 : 0));
    range.count = static_cast<size_t>(range.end - range.start);
    return range;
}

/** Block numbers are passed as signed 32-bit values. */
bool check_block_numbers(size_t block_size, size_t in_size, size_t offset) {
    const size_t limit = block_size * INT_MAX;
    if (offset <= limit && in_size <= limit - offset) {
        return true;
    }
    ota_log_error("write range 0x%zx+0x%zx cannot be counted in blocks of %zu bytes\n", offset, in_size, block_size);
    return false;
}

bool allocate_old_data(block_range& range) {
    range.old_data.reset(static_cast<uint8_t*>(std::calloc(range.count, range.block_size)));
    range.blocks.reset(static_cast<long long*>(std::calloc(range.count, sizeof(long long))));
    if (range.old_data == nullptr || range.blocks == nullptr) {
        ota_log_error("no memory for %zu bytes of old data\n", range.count * range.block_size);
        return false;
    }
    return true;
}

/** Reads all of block `ofs` into piece `slot` of old_data. A short read is continued where it stopped. */
int read_block(const flash_medium& medium, const block_range& range, long long ofs, size_t slot) {
    uint8_t* const piece = range.old_data.get() + slot * range.block_size;
    const size_t offs = static_cast<size_t>(ofs) * range.block_size;
    size_t done = 0;
    while (done < range.block_size) {
        const ssize_t readnum = medium.read(range.fd, piece + done, range.block_size - done, offs + done);
        if (readnum == 0 && done == 0) {
            ota_log_debug("%s reached the end of the file, error%d\n", medium.read_name, 0);
            return -1;
        }
        if (readnum <= 0) {
            const int ret = readnum < 0 ? static_cast<int>(readnum) : -1;
            ota_log_error("%s failed, error%d\n", medium.read_name, ret);
            return ret;
        }
        done += static_cast<size_t>(readnum);
    }
    return 0;
}

int erase_block(const flash_medium& medium, const block_range& range, long long ofs) {
    const int ret = medium.erase(range, ofs);
    if (ret == 0) {
        return 0;
    }
    ota_log_error("ioctl %s failed, error%d. Next, the read data is rewritten back\n", medium.erase_name, ret);
    return request_failure(ret);
}

/** Reads and erases every block of the range. On failure the range ends before the failed block. */
int read_and_erase(const flash_medium& medium, block_range& range) {
    size_t slot = 0;
    for (long long ofs = range.start; ofs < range.end; ++ofs) {
        if (medium.check_bad(range, ofs)) {
            ++range.end;
            continue;
        }
        int ret = read_block(medium, range, ofs, slot);
        if (ret == 0) {
            ret = erase_block(medium, range, ofs);
        }
        if (ret != 0) {
            range.end = ofs;
            range.count = slot;
            return ret;
        }
        range.blocks.get()[slot++] = ofs;
    }
    return 0;
}

/** Writes piece `slot` of old_data to block `ofs`. The driver writes whole blocks: a short count is a success. */
int write_block(const block_range& range, long long ofs, size_t slot) {
    const uint8_t* piece = range.old_data.get() + slot * range.block_size;
    const auto ret =
        static_cast<int>(pwrite(range.fd, piece, range.block_size, ofs * static_cast<off_t>(range.block_size)));
    if (ret < 0) {
        ota_log_error("pwrite failed, error%d\n", ret);
        return ret;
    }
    return 0;
}

/** Writes each piece of old_data back to the block that it came from. */
int write_back(const flash_medium& medium, const block_range& range) {
    const int ret = medium.allow_writes(range.fd);
    if (ret != 0) {
        return request_failure(ret);
    }
    int status = 0;
    size_t slot = 0;
    for (long long ofs = range.start; ofs < range.end; ++ofs) {
        const bool was_good = slot < range.count && range.blocks.get()[slot] == ofs;
        const bool is_good = !medium.check_bad(range, ofs);
        if (was_good && is_good) {
            const int failed = write_block(range, ofs, slot);
            if (failed != 0) {
                return failed;
            }
        } else if (was_good) {
            ota_log_error("block-%lld was good when it was read and is bad now\n", ofs);
            status = -1; /* it stays erased */
        } else if (is_good) {
            ota_log_error("block-%lld was bad when the range was read and is good now\n", ofs);
            status = -1; /* it was neither read nor erased */
        }
        slot += was_good ? 1 : 0;
    }
    return status;
}

/**
 * @param modify_ofs  where the new data starts inside the first block; old_data has been allocated
 * @return in_size, or the negative status of the first step that failed
 */
ssize_t rewrite(const flash_medium& medium, block_range& range, const void* in_buf, size_t in_size, size_t modify_ofs) {
    const int read_status = read_and_erase(medium, range);
    if (read_status == 0) {
        std::memcpy(range.old_data.get() + modify_ofs, in_buf, in_size);
    }
    const int write_status = write_back(medium, range);
    const int status = read_status != 0 ? read_status : write_status;
    return status != 0 ? status : static_cast<ssize_t>(in_size);
}

bool check_size(size_t in_size) {
    if (in_size == 0) {
        ota_log_error("in_size is 0, failed!");
    }
    return in_size != 0;
}

bool check_new_data(const void* in_buf, size_t in_size) {
    if (!check_size(in_size)) {
        return false;
    }
    if (in_buf == nullptr) {
        ota_log_error("in_buf is null\n");
        return false;
    }
    return true;
}

/** One pread, whose result is passed to the caller unchanged. */
ssize_t read_at(const flash_medium& medium, int fd, void* in_buf, size_t in_size, size_t offset) {
    const auto ret = static_cast<int32_t>(pread(fd, in_buf, in_size, static_cast<off_t>(offset)));
    if (ret < 0) {
        ota_log_error("%s failed, error%d\n", medium.read_name, ret);
    } else if (ret == 0) {
        ota_log_debug("%s reached the end of the file, error%d\n", medium.read_name, ret);
    }
    return ret;
}

} // namespace

ssize_t vx_mtd_read(int fd, void* in_buf, size_t in_size, size_t offset) {
    if (!check_size(in_size)) {
        return -1;
    }
    mtd_geometry info{};
    const int failed = get_mtd_info(fd, &info);
    if (failed != 0) {
        return request_failure(failed);
    }
    if (offset > info.size) {
        ota_log_error("read offset 0x%zx is beyond the device size 0x%x\n", offset, info.size);
        return -1;
    }
    if (in_size > info.size - offset) {
        ota_log_debug("vx_mtd_read out of mtd size\n");
        in_size = info.size - offset;
    }
    return read_at(mtd_medium, fd, in_buf, in_size, offset);
}

ssize_t vx_mtd_write(int fd, void* in_buf, size_t in_size, size_t offset) {
    if (!check_new_data(in_buf, in_size)) {
        return -1;
    }
    mtd_geometry info{};
    const int failed = get_mtd_info(fd, &info);
    if (failed != 0) {
        return request_failure(failed);
    }
    if (offset > info.size || in_size > info.size - offset) {
        ota_log_error("write range 0x%llx+0x%zx exceeds the device size 0x%x\n",
                      static_cast<unsigned long long>(offset), in_size, info.size);
        return -1;
    }
    if (info.erase_size == 0) {
        ota_log_error("the device has erase blocks of 0 bytes\n");
        return -1;
    }
    if (!check_block_numbers(info.erase_size, in_size, offset)) {
        return -1;
    }
    block_range range = range_of(fd, info.erase_size, info.size, in_size, offset);
    if (!allocate_old_data(range)) {
        return -1;
    }
    move_past_bad_blocks(range);
    return rewrite(mtd_medium, range, in_buf, in_size, offset % info.erase_size);
}

ssize_t vx_ubi_read(int fd, void* in_buf, size_t in_size, size_t offset) {
    if (!check_size(in_size)) {
        return -1;
    }
    ubi_geometry info{};
    const int failed = get_ubi_info(fd, &info);
    if (failed != 0) {
        return request_failure(failed);
    }
    return read_at(ubi_medium, fd, in_buf, in_size, offset);
}

ssize_t vx_ubi_write(int fd, void* in_buf, size_t in_size, size_t offset) {
    if (!check_new_data(in_buf, in_size)) {
        return -1;
    }
    ubi_geometry info{};
    const int failed = get_ubi_info(fd, &info);
    if (failed != 0) {
        return request_failure(failed);
    }
    if (info.leb_size <= 0) {
        ota_log_error("the volume has LEBs of %d bytes\n", info.leb_size);
        return -1;
    }
    const auto leb_size = static_cast<size_t>(info.leb_size);
    if (!check_block_numbers(leb_size, in_size, offset)) {
        return -1;
    }
    block_range range = range_of(fd, leb_size, 0, in_size, offset);
    if (!allocate_old_data(range)) {
        return -1;
    }
    return rewrite(ubi_medium, range, in_buf, in_size, offset % leb_size);
}

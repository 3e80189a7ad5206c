// SPDX-License-Identifier: Apache-2.0
/**
 * The requests of block devices, MTD devices and UBI volumes. Each function is one ioctl() and returns its result: 0
 * for success, anything else is a failure, with errno as the kernel set it. An out parameter is written on success
 * only. Nothing is kept between calls.
 */
#ifndef DEVICE_REQUEST_H
#define DEVICE_REQUEST_H

#include <cstdint>

/** Both in bytes, as the driver reports them: either may be 0. */
struct mtd_geometry {
    uint32_t size; /* bad blocks included */
    uint32_t erase_size;
};

/** Both in bytes, as the driver reports them: either may be 0 or negative. */
struct ubi_geometry {
    int64_t used_size; /* what can be read and written */
    int32_t leb_size;  /* usable bytes of one LEB */
};

int block_get_size(int fd, uint64_t* size);

int mtd_get_geometry(int fd, mtd_geometry* geometry);

/** @param start  of the block, in bytes. @return 0 for a good block, 1 for a bad one, -1 where this is unknown */
int mtd_get_bad_block(int fd, uint64_t start);

/** @param start, length  in bytes; both multiples of the erase size */
int mtd_erase(int fd, uint64_t start, uint64_t length);

/** @param failed  out: reads that the ECC could not correct since the device was attached */
int mtd_get_failed_reads(int fd, uint32_t* failed);

int ubi_get_geometry(int fd, ubi_geometry* geometry);

/** Erases a LEB immediately: afterwards it reads as 0xFF. */
int ubi_erase_leb(int fd, int32_t lnum);

/** Allows pwrite() on the volume until it is detached. */
int ubi_allow_direct_writes(int fd);

#endif

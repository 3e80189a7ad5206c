// SPDX-License-Identifier: Apache-2.0
#include "device_request.h"

#include <cstddef>
#include <linux/fs.h>
#include <mtd/mtd-user.h>
#include <mtd/ubi-user.h>
#include <sys/ioctl.h>

namespace {

/** The result of the volume information request of the board's kernel, which mainline Linux does not have. */
struct __attribute__((packed)) volume_info {
    int64_t used_bytes;
    int32_t usable_leb_size;
};

constexpr unsigned long get_volume_info = _IOR('O', 9, volume_info);

static_assert(BLKGETSIZE64 == 0x80081272);
static_assert(sizeof(mtd_info_user) == 32 && MEMGETINFO == 0x80204D01);
static_assert(MEMGETBADBLOCK == 0x40084D0B);
static_assert(sizeof(erase_info_user64) == 16 && MEMERASE64 == 0x40104D14);
static_assert(sizeof(mtd_ecc_stats) == 16 && ECCGETSTATS == 0x80104D12);
static_assert(sizeof(volume_info) == 12 && get_volume_info == 0x800C4F09);
static_assert(UBI_IOCEBER == 0x40044F01);
static_assert(sizeof(ubi_set_vol_prop_req) == 16 && UBI_IOCSETVOLPROP == 0x40104F06);

} // namespace

int block_get_size(int fd, uint64_t* size) {
    return ioctl(fd, BLKGETSIZE64, size);
}

int mtd_get_geometry(int fd, mtd_geometry* geometry) {
    mtd_info_user info{};
    const int ret = ioctl(fd, MEMGETINFO, &info);
    if (ret == 0) {
        *geometry = {info.size, info.erasesize};
    }
    return ret;
}

int mtd_get_bad_block(int fd, uint64_t start) {
    auto offset = static_cast<__kernel_loff_t>(start);
    return ioctl(fd, MEMGETBADBLOCK, &offset);
}

int mtd_erase(int fd, uint64_t start, uint64_t length) {
    erase_info_user64 range{};
    range.start = start;
    range.length = length;
    return ioctl(fd, MEMERASE64, &range);
}

int mtd_get_failed_reads(int fd, uint32_t* failed) {
    mtd_ecc_stats stats{};
    const int ret = ioctl(fd, ECCGETSTATS, &stats);
    if (ret == 0) {
        *failed = stats.failed;
    }
    return ret;
}

int ubi_get_geometry(int fd, ubi_geometry* geometry) {
    volume_info info{};
    const int ret = ioctl(fd, get_volume_info, &info);
    if (ret == 0) {
        *geometry = {info.used_bytes, info.usable_leb_size};
    }
    return ret;
}

int ubi_erase_leb(int fd, int32_t lnum) {
    return ioctl(fd, UBI_IOCEBER, &lnum);
}

int ubi_allow_direct_writes(int fd) {
    ubi_set_vol_prop_req request{};
    request.property = UBI_VOL_PROP_DIRECT_WRITE;
    request.value = 1;
    return ioctl(fd, UBI_IOCSETVOLPROP, &request);
}

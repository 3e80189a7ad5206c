// SPDX-License-Identifier: Apache-2.0
/** The volume information request as the board's kernel defines it; mainline Linux does not have it. */
#ifndef KERNEL_VOLUME_INFO_H
#define KERNEL_VOLUME_INFO_H

#include <cstdint>
#include <sys/ioctl.h>

struct __attribute__((packed)) ubi_info_user {
    int64_t used_bytes;
    int32_t usable_leb_size;
};

#define UBI_IOCVOLINFO _IOR('O', 9, struct ubi_info_user)

#endif

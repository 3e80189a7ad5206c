/** The volume information request of the board's kernel, which mainline Linux does not have. */
#ifndef UBI_VOLUME_INFO_H
#define UBI_VOLUME_INFO_H

#include <cstdint>
#include <sys/ioctl.h>

struct __attribute__((packed)) ubi_info_user {
    int64_t used_bytes;      /* bytes of data in the volume */
    int32_t usable_leb_size; /* usable bytes of one LEB */
};

#define UBI_IOCVOLINFO _IOR('O', 9, struct ubi_info_user)

static_assert(sizeof(ubi_info_user) == 12 && UBI_IOCVOLINFO == 0x800C4F09);

#endif

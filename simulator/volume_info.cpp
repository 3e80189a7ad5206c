// SPDX-License-Identifier: Apache-2.0
/** Answers UBI_IOCVOLINFO, which mainline Linux does not have, from the volume's attributes in sysfs. */
#include "kernel_volume_info.h"

#include <cstdarg>
#include <dlfcn.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

bool read_volume_info(int fd, ubi_info_user* info) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISCHR(status.st_mode)) {
        return false;
    }
    const std::string volume =
        "/sys/dev/char/" + std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
    int64_t used_bytes = 0;
    int32_t usable_leb_size = 0;
    if (!(std::ifstream(volume + "/data_bytes") >> used_bytes) ||
        !(std::ifstream(volume + "/usable_eb_size") >> usable_leb_size)) {
        return false;
    }
    *info = {used_bytes, usable_leb_size};
    return true;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) noexcept {
    static auto* const next = reinterpret_cast<decltype(ioctl)*>(dlsym(RTLD_NEXT, "ioctl"));
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == UBI_IOCVOLINFO && read_volume_info(fd, static_cast<ubi_info_user*>(argument))) {
        return 0;
    }
    return next(fd, request, argument);
}

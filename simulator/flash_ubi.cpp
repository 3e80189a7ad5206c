// SPDX-License-Identifier: Apache-2.0
#include "flash_cell_device.h"
#include "kernel_volume_info.h"

#include <array>
#include <mtd/ubi-user.h>
#include <sys/ioctl.h>

namespace {

void locate_leb(const void* argument, flash_operation& operation) {
    operation.position = static_cast<uint64_t>(as<int32_t>(argument));
}

/** A dynamic volume. Reading a page that the ECC cannot correct fails, and writes are refused until allowed. */
class ubi_device final : public cell_device<ubi_device> {
public:
    using cell_device::cell_device;

    static constexpr int read_only_error = -EROFS;
    static const std::array<request_row<ubi_device>, 5> requests;

    [[nodiscard]] ssize_t read(uint64_t offset, std::span<uint8_t> out) override {
        if (offset > cells_.size()) {
            return -EFAULT; /* the kernel treats the count as negative and writes past the program's buffer */
        }
        const size_t count = std::min<uint64_t>(out.size(), cells_.size() - offset);
        return cells_.read(offset, out.first(count)) != 0 ? -EBADMSG : static_cast<ssize_t>(count);
    }

    [[nodiscard]] ssize_t write(uint64_t offset, std::span<const uint8_t> data) override {
        if (!direct_writes_) {
            return -EPERM;
        }
        if (offset >= cells_.size()) {
            return -ENOMEM; /* the kernel asks for a buffer of 0 bytes */
        }
        const size_t count = std::min<uint64_t>(data.size(), cells_.size() - offset);
        if (offset % cells_.erasesize() % cells_.writesize() != 0 || count % cells_.writesize() != 0) {
            return -EINVAL;
        }
        cells_.program(offset, data.first(count));
        return static_cast<ssize_t>(count);
    }

    void lose_power(uint64_t /*seed*/) override {
        direct_writes_ = false;
    }

private:
    int get_info(void* argument) {
        auto* const info = static_cast<ubi_info_user*>(argument);
        info->used_bytes = static_cast<int64_t>(cells_.size());
        info->usable_leb_size = static_cast<int32_t>(cells_.erasesize());
        return 0;
    }

    [[nodiscard]] bool has_leb(int32_t lnum) const {
        return lnum >= 0 && static_cast<uint64_t>(lnum) < cells_.size() / cells_.erasesize();
    }

    int erase_leb(void* argument) {
        const auto lnum = as<int32_t>(argument);
        if (!has_leb(lnum)) {
            return -EINVAL;
        }
        /* The LEB is unmapped from its block before that is erased. A torn erase leaves an empty LEB or the
         * old one; the old one is what a program is less likely to expect. */
        if (!cells_.is_tearing()) {
            cells_.erase(static_cast<uint64_t>(lnum));
        }
        return 0;
    }

    int is_mapped(void* argument) {
        const auto lnum = as<int32_t>(argument);
        if (!has_leb(lnum)) {
            return -EINVAL;
        }
        return cells_.is_erased(static_cast<uint64_t>(lnum)) ? 0 : 1;
    }

    int set_property(void* argument) {
        const auto& request = as<ubi_set_vol_prop_req>(argument);
        if (request.property != UBI_VOL_PROP_DIRECT_WRITE) {
            return -EINVAL;
        }
        direct_writes_ = request.value != 0;
        return 0;
    }

    bool direct_writes_ = false;
};

constexpr std::array<request_row<ubi_device>, 5> ubi_device::requests = {{
    {UBI_IOCVOLINFO, "UBI_IOCVOLINFO", false, locate_nowhere, &ubi_device::get_info},
    {UBI_IOCEBER, "UBI_IOCEBER", true, locate_leb, &ubi_device::erase_leb},
    {UBI_IOCEBUNMAP, "UBI_IOCEBUNMAP", true, locate_leb, &ubi_device::erase_leb},
    {UBI_IOCEBISMAP, "UBI_IOCEBISMAP", false, locate_leb, &ubi_device::is_mapped},
    {UBI_IOCSETVOLPROP, "UBI_IOCSETVOLPROP", false, locate_nowhere, &ubi_device::set_property},
}};

} // namespace

std::unique_ptr<flash_device> make_ubi_volume(const std::string& path, const std::string& state_path,
                                              flash_geometry geometry) {
    return std::make_unique<ubi_device>(path, state_path, std::move(geometry));
}

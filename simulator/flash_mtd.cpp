// SPDX-License-Identifier: Apache-2.0
#include "flash_cell_device.h"

#include <array>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

namespace {

void locate_offset(const void* argument, flash_operation& operation) {
    operation.position = static_cast<uint64_t>(as<loff_t>(argument));
}

template <class Range>
void locate_range(const void* argument, flash_operation& operation) {
    operation.position = as<Range>(argument).start;
    operation.length = as<Range>(argument).length;
}

/** NAND and NOR. Reading a page that the ECC cannot correct succeeds; only ECCGETSTATS reports it. */
class mtd_device final : public cell_device<mtd_device> {
public:
    using cell_device::cell_device;

    static constexpr int read_only_error = -EPERM;
    static const std::array<request_row<mtd_device>, 6> requests;

    [[nodiscard]] ssize_t read(uint64_t offset, std::span<uint8_t> out) override {
        if (offset >= cells_.size()) {
            return 0;
        }
        const size_t count = std::min<uint64_t>(out.size(), cells_.size() - offset);
        ecc_failed_ += cells_.read(offset, out.first(count));
        return static_cast<ssize_t>(count);
    }

    [[nodiscard]] ssize_t write(uint64_t offset, std::span<const uint8_t> data) override {
        if (offset >= cells_.size()) {
            return -ENOSPC;
        }
        const size_t count = std::min<uint64_t>(data.size(), cells_.size() - offset);
        if (offset % cells_.writesize() != 0 || count % cells_.writesize() != 0) {
            return -EINVAL;
        }
        cells_.program(offset, data.first(count));
        return static_cast<ssize_t>(count);
    }

    [[nodiscard]] int sync() override {
        return -EINVAL; /* nothing is cached, and the device does not support the call */
    }

    void lose_power(uint64_t /*seed*/) override {
        ecc_failed_ = 0;
    }

private:
    [[nodiscard]] bool is_nor() const {
        return cells_.writesize() == 1;
    }

    int get_info(void* argument) {
        mtd_info_user info{};
        info.type = is_nor() ? MTD_NORFLASH : MTD_NANDFLASH;
        info.flags = is_nor() ? MTD_CAP_NORFLASH : MTD_CAP_NANDFLASH;
        info.size = static_cast<uint32_t>(std::min<uint64_t>(cells_.size(), UINT32_MAX));
        info.erasesize = cells_.erasesize();
        info.writesize = cells_.writesize();
        info.oobsize = cells_.writesize() / 32;
        *static_cast<mtd_info_user*>(argument) = info;
        return 0;
    }

    [[nodiscard]] bool has_block(loff_t offset) const {
        return offset >= 0 && static_cast<uint64_t>(offset) < cells_.size();
    }

    int get_bad_block(void* argument) {
        const auto offset = as<loff_t>(argument);
        if (!has_block(offset)) {
            return -EINVAL;
        }
        return cells_.is_bad(static_cast<uint64_t>(offset) / cells_.erasesize()) ? 1 : 0;
    }

    int set_bad_block(void* argument) {
        const auto offset = as<loff_t>(argument);
        if (is_nor()) {
            return -EOPNOTSUPP;
        }
        if (!has_block(offset)) {
            return -EINVAL;
        }
        cells_.mark_bad(static_cast<uint64_t>(offset) / cells_.erasesize());
        return 0;
    }

    template <class Range>
    int erase(void* argument) {
        const uint64_t start = as<Range>(argument).start;
        const uint64_t length = as<Range>(argument).length;
        if (start > cells_.size() || length > cells_.size() - start || start % cells_.erasesize() != 0 ||
            length % cells_.erasesize() != 0) {
            return -EINVAL;
        }
        for (uint64_t block = start / cells_.erasesize(); block < (start + length) / cells_.erasesize(); ++block) {
            if (cells_.is_bad(block)) {
                return -EIO;
            }
            cells_.erase(block);
        }
        return 0;
    }

    int get_ecc_stats(void* argument) {
        mtd_ecc_stats stats{};
        stats.failed = ecc_failed_;
        stats.badblocks = cells_.count_bad();
        *static_cast<mtd_ecc_stats*>(argument) = stats;
        return 0;
    }

    uint32_t ecc_failed_ = 0;
};

constexpr std::array<request_row<mtd_device>, 6> mtd_device::requests = {{
    {MEMGETINFO, "MEMGETINFO", false, locate_nowhere, &mtd_device::get_info},
    {MEMGETBADBLOCK, "MEMGETBADBLOCK", false, locate_offset, &mtd_device::get_bad_block},
    {MEMSETBADBLOCK, "MEMSETBADBLOCK", true, locate_offset, &mtd_device::set_bad_block},
    {MEMERASE, "MEMERASE", true, locate_range<erase_info_user>, &mtd_device::erase<erase_info_user>},
    {MEMERASE64, "MEMERASE64", true, locate_range<erase_info_user64>, &mtd_device::erase<erase_info_user64>},
    {ECCGETSTATS, "ECCGETSTATS", false, locate_nowhere, &mtd_device::get_ecc_stats},
}};

} // namespace

std::unique_ptr<flash_device> make_mtd_device(const std::string& path, const std::string& state_path,
                                              flash_geometry geometry) {
    return std::make_unique<mtd_device>(path, state_path, std::move(geometry));
}

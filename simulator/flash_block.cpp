// SPDX-License-Identifier: Apache-2.0
#include "flash_cells.h"
#include "flash_device.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <stdexcept>

namespace {

/**
 * A disk with a write cache, such as eMMC. Until a sync, each written sector may or may not reach the medium,
 * regardless of the order of the writes. The previous content of each such sector is kept in a second file.
 */
class block_device final : public flash_device {
public:
    block_device(const std::string& path, const std::string& state_path)
        : file_(path), state_(state_path, file_.bytes().size() / sector_size * (sector_size + 1)) {
        if (file_.bytes().size() % sector_size != 0) {
            throw std::runtime_error(path + ": the size of the file is not a multiple of 512");
        }
        unsynced_ = state_.bytes().first(file_.bytes().size() / sector_size);
        old_sectors_ = state_.bytes().subspan(unsynced_.size());
    }

    [[nodiscard]] bool is(dev_t device, ino_t inode) const override {
        return file_.is(device, inode);
    }

    [[nodiscard]] ssize_t read(uint64_t offset, std::span<uint8_t> out) override {
        const size_t count = room(offset, out.size());
        std::ranges::copy(file_.bytes().subspan(offset, count), out.begin());
        return static_cast<ssize_t>(count);
    }

    [[nodiscard]] ssize_t write(uint64_t offset, std::span<const uint8_t> data) override {
        size_t count = room(offset, data.size());
        if (count == 0 && !data.empty()) {
            return -ENOSPC;
        }
        if (tear_) { /* a sector is stored whole or not at all */
            count = std::min<uint64_t>(*tear_ == tear_in_the_middle ? count / 2 : *tear_, count);
            count = count / sector_size * sector_size;
        }
        for (uint64_t sector = offset / sector_size; sector * sector_size < offset + count; ++sector) {
            keep_old(sector);
        }
        std::ranges::copy(data.first(count), file_.bytes().subspan(offset).begin());
        return static_cast<ssize_t>(count);
    }

    [[nodiscard]] std::optional<flash_operation> describe(const flash_request& /*request*/) const override {
        return std::nullopt;
    }

    [[nodiscard]] int carry_out(const flash_request& /*request*/) override {
        return -ENOTTY;
    }

    [[nodiscard]] int sync() override {
        std::ranges::fill(unsynced_, uint8_t{0});
        return 0;
    }

    [[nodiscard]] bool has_unsynced() const override {
        return std::ranges::any_of(unsynced_, [](uint8_t sector) { return sector != 0; });
    }

    void set_tear(power_tear tear) override {
        tear_ = tear;
    }

    void lose_power(uint64_t seed) override {
        std::mt19937_64 coin(seed);
        for (uint64_t sector = 0; sector < unsynced_.size(); ++sector) {
            const bool survives = unsynced_[sector] != 0 && seed != 0 && coin() % 2 == 0;
            if (unsynced_[sector] != 0 && !survives) {
                std::ranges::copy(old_sector(sector), sector_of(file_.bytes(), sector).begin());
            }
        }
        (void)sync();
    }

private:
    static constexpr size_t sector_size = 512;

    static std::span<uint8_t> sector_of(std::span<uint8_t> bytes, uint64_t sector) {
        return bytes.subspan(sector * sector_size, sector_size);
    }

    [[nodiscard]] size_t room(uint64_t offset, size_t wanted) const {
        const size_t size = file_.bytes().size();
        return offset < size ? std::min<uint64_t>(wanted, size - offset) : 0;
    }

    [[nodiscard]] std::span<uint8_t> old_sector(uint64_t sector) const {
        return sector_of(old_sectors_, sector);
    }

    void keep_old(uint64_t sector) {
        if (unsynced_[sector] == 0) {
            std::ranges::copy(sector_of(file_.bytes(), sector), old_sector(sector).begin());
            unsynced_[sector] = 1;
        }
    }

    mapped_file file_;
    mapped_file state_;
    std::span<uint8_t> unsynced_; /* one byte per sector */
    std::span<uint8_t> old_sectors_;
    power_tear tear_;
};

} // namespace

std::unique_ptr<flash_device> make_block_device(const std::string& path, const std::string& state_path) {
    return std::make_unique<block_device>(path, state_path);
}

// SPDX-License-Identifier: Apache-2.0
/** The cells of a simulated flash: programming only clears bits, erasing sets all bits of a block. */
#ifndef FLASH_CELLS_H
#define FLASH_CELLS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

struct flash_geometry {
    uint32_t erasesize; /* bytes of an erase block or LEB */
    uint32_t writesize; /* bytes of a page; 1 where single bytes are programmed, without ECC */
    std::vector<uint64_t> factory_bad;
};

/** Number of bytes of a write stored before the power fails; nullopt when it does not fail. */
using power_tear = std::optional<uint64_t>;
inline constexpr uint64_t tear_in_the_middle = UINT64_MAX;

/** A file mapped so that its bytes are shared with all processes that map or read it. */
class mapped_file {
public:
    /** Maps an existing file. */
    explicit mapped_file(const std::string& path);
    /** Creates the file, or uses it when it has this size already, and maps it. */
    mapped_file(const std::string& path, size_t size);
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;
    ~mapped_file();

    [[nodiscard]] std::span<uint8_t> bytes() const {
        return bytes_;
    }
    [[nodiscard]] bool is(dev_t device, ino_t inode) const {
        return device_ == device && inode_ == inode;
    }

private:
    void map(int fd, const std::string& path);

    std::span<uint8_t> bytes_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

/**
 * Invariants:
 *  1. Programming a byte ANDs it with the stored byte. Only an erase sets bits again.
 *  2. A page is spoiled when programming it a second time changed its bytes, or when its programming or
 *     erase was torn: its ECC no longer fits, and reads report this until it is erased.
 *  3. A bad block is only marked as bad: its cells work like any others.
 */
class flash_cells {
public:
    flash_cells(const std::string& path, const std::string& state_path, flash_geometry geometry);

    [[nodiscard]] uint64_t size() const {
        return file_.bytes().size();
    }
    [[nodiscard]] uint32_t erasesize() const {
        return geometry_.erasesize;
    }
    [[nodiscard]] uint32_t writesize() const {
        return geometry_.writesize;
    }
    [[nodiscard]] bool is(dev_t device, ino_t inode) const {
        return file_.is(device, inode);
    }

    /** @return the number of spoiled pages that the bytes come from */
    [[nodiscard]] uint32_t read(uint64_t offset, std::span<uint8_t> out) const;
    /** `data` is a whole number of pages. */
    void program(uint64_t offset, std::span<const uint8_t> data);
    void erase(uint64_t block);
    [[nodiscard]] bool is_erased(uint64_t block) const;

    [[nodiscard]] bool is_bad(uint64_t block) const {
        return bad_[block] != 0;
    }
    void mark_bad(uint64_t block) {
        bad_[block] = 1;
    }
    [[nodiscard]] uint32_t count_bad() const;

    /** Sets whether the power fails from now on within a program or in the middle of an erase. */
    void set_tear(power_tear tear) {
        tear_ = tear;
    }
    [[nodiscard]] bool is_tearing() const {
        return tear_.has_value();
    }

private:
    [[nodiscard]] bool has_ecc() const {
        return geometry_.writesize > 1;
    }
    void program_page(uint64_t page, std::span<const uint8_t> data);
    void program_torn(uint64_t offset, std::span<const uint8_t> data);
    [[nodiscard]] size_t count_stored(size_t length) const;
    void erase_half(uint64_t block);
    void set_spoiled(uint64_t block, uint8_t spoiled);

    flash_geometry geometry_;
    mapped_file file_;
    mapped_file state_;
    std::span<uint8_t> bad_;     /* one byte per block */
    std::span<uint8_t> spoiled_; /* one byte per page */
    power_tear tear_;
};

#endif

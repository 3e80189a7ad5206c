/** The cells of a simulated flash: bytes that programming only clears and erasing sets, block by block. */
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
    uint32_t writesize; /* bytes of a page; 1 where single bytes are programmed and no ECC guards them */
    std::vector<uint64_t> factory_bad;
};

/** How many bytes of a write are stored before the power fails; nothing when it does not fail. */
using power_tear = std::optional<uint64_t>;
inline constexpr uint64_t tear_in_the_middle = UINT64_MAX;

/** A file whose bytes are shared with every other process that maps or reads it. */
class mapped_file {
public:
    /** Maps an existing file. */
    explicit mapped_file(const std::string& path);
    /** Makes the file, or takes it when it has this size already, and maps it. */
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
 * What holds of the cells:
 *  1. Programming a byte ANDs it with what is there. Only an erase brings bits back.
 *  2. A page whose bytes changed by being programmed a second time, or whose programming or erase was
 *     torn, is spoiled: its check bytes no longer fit, and reading tells so until it is erased.
 *  3. Badness of a block is a mark and no more: the cells of a bad block work like any others.
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

    /** From now on the power fails within a program or in the middle of an erase, or no longer does. */
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
    std::span<uint8_t> bad_;     /* one byte a block */
    std::span<uint8_t> spoiled_; /* one byte a page */
    power_tear tear_;
};

#endif

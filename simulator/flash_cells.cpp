// SPDX-License-Identifier: Apache-2.0
#include "flash_cells.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint8_t erased_byte = 0xff;
/* An interrupted erase has set some bits and not others. */
constexpr uint8_t half_erased_bits = 0x55;

std::runtime_error file_error(const std::string& path) {
    return std::runtime_error(path + ": " + std::strerror(errno));
}

/** Recreates a file of a different size: it holds the state of another device. */
bool take_size(int fd, size_t size) {
    struct stat status {};
    if (fstat(fd, &status) == 0 && static_cast<size_t>(status.st_size) == size) {
        return true;
    }
    return ftruncate(fd, 0) == 0 && ftruncate(fd, static_cast<off_t>(size)) == 0;
}

void check_geometry(const std::string& path, uint64_t size, const flash_geometry& geometry) {
    if (geometry.erasesize == 0 || geometry.writesize == 0 || geometry.erasesize % geometry.writesize != 0) {
        throw std::runtime_error(path + ": erasesize has to be a multiple of writesize, and neither is 0");
    }
    if (size == 0 || size % geometry.erasesize != 0) {
        throw std::runtime_error(path + ": the size of the file is not a multiple of erasesize");
    }
}

uint64_t page_count(uint64_t size, const flash_geometry& geometry) {
    return geometry.writesize > 1 ? size / geometry.writesize : 0;
}

bool all_erased(std::span<const uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == erased_byte; });
}

/** @return whether the cells held something else, so that the check bytes of their page no longer fit */
bool and_bytes(std::span<uint8_t> cells, std::span<const uint8_t> data) {
    const bool held_other = !all_erased(cells) && !std::ranges::equal(cells, data);
    std::ranges::transform(cells, data, cells.begin(), std::bit_and<>());
    return held_other;
}

} // namespace

mapped_file::mapped_file(const std::string& path) {
    map(open(path.c_str(), O_RDWR | O_CLOEXEC), path);
}

mapped_file::mapped_file(const std::string& path, size_t size) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || !take_size(fd, size)) {
        throw file_error(path);
    }
    map(fd, path);
}

mapped_file::~mapped_file() {
    munmap(bytes_.data(), bytes_.size());
}

void mapped_file::map(int fd, const std::string& path) {
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        throw file_error(path);
    }
    const auto size = static_cast<size_t>(status.st_size);
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int error = errno;
    close(fd);
    if (memory == MAP_FAILED) {
        errno = error;
        throw file_error(path);
    }
    bytes_ = {static_cast<uint8_t*>(memory), size};
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

flash_cells::flash_cells(const std::string& path, const std::string& state_path, flash_geometry geometry)
    : geometry_(std::move(geometry)), file_(path),
      state_((check_geometry(path, file_.bytes().size(), geometry_), state_path),
             file_.bytes().size() / geometry_.erasesize + page_count(file_.bytes().size(), geometry_)) {
    const uint64_t blocks = size() / erasesize();
    bad_ = state_.bytes().first(blocks);
    spoiled_ = state_.bytes().subspan(blocks);
    for (const uint64_t block : geometry_.factory_bad) {
        if (block >= blocks) {
            throw std::runtime_error(path + ": a bad block past the end of the device");
        }
        mark_bad(block);
    }
}

uint32_t flash_cells::read(uint64_t offset, std::span<uint8_t> out) const {
    std::ranges::copy(file_.bytes().subspan(offset, out.size()), out.begin());
    if (!has_ecc() || out.empty()) {
        return 0;
    }
    const uint64_t first = offset / writesize();
    const uint64_t last = (offset + out.size() - 1) / writesize();
    return static_cast<uint32_t>(std::ranges::count(spoiled_.subspan(first, last - first + 1), 1));
}

void flash_cells::program(uint64_t offset, std::span<const uint8_t> data) {
    if (is_tearing()) {
        program_torn(offset, data);
        return;
    }
    if (!has_ecc()) {
        (void)and_bytes(file_.bytes().subspan(offset, data.size()), data);
        return;
    }
    for (size_t done = 0; done < data.size(); done += writesize()) {
        program_page((offset + done) / writesize(), data.subspan(done, writesize()));
    }
}

void flash_cells::program_page(uint64_t page, std::span<const uint8_t> data) {
    if (and_bytes(file_.bytes().subspan(page * writesize(), writesize()), data)) {
        spoiled_[page] = 1;
    }
}

/** The middle of a transfer is put in the middle of a page, so that a program finds that page torn. */
size_t flash_cells::count_stored(size_t length) const {
    if (*tear_ != tear_in_the_middle) {
        return static_cast<size_t>(std::min<uint64_t>(*tear_, length));
    }
    const size_t half = length / 2;
    return has_ecc() ? half / writesize() * writesize() + writesize() / 2 : half;
}

/** Programs whole pages, in order, up to the tear; the page at the tear gets the bytes before it. */
void flash_cells::program_torn(uint64_t offset, std::span<const uint8_t> data) {
    const size_t stored = count_stored(data.size());
    if (!has_ecc()) {
        (void)and_bytes(file_.bytes().subspan(offset, stored), data.first(stored));
        return;
    }
    const size_t whole = stored / writesize() * writesize();
    for (size_t done = 0; done < whole; done += writesize()) {
        program_page((offset + done) / writesize(), data.subspan(done, writesize()));
    }
    if (whole < data.size()) {
        const size_t rest = stored - whole;
        (void)and_bytes(file_.bytes().subspan(offset + whole, rest), data.subspan(whole, rest));
        spoiled_[(offset + whole) / writesize()] = 1;
    }
}

void flash_cells::erase(uint64_t block) {
    if (is_tearing()) {
        erase_half(block);
        return;
    }
    std::ranges::fill(file_.bytes().subspan(block * erasesize(), erasesize()), erased_byte);
    set_spoiled(block, 0);
}

void flash_cells::erase_half(uint64_t block) {
    for (uint8_t& byte : file_.bytes().subspan(block * erasesize(), erasesize())) {
        byte |= half_erased_bits;
    }
    set_spoiled(block, 1);
}

void flash_cells::set_spoiled(uint64_t block, uint8_t spoiled) {
    if (has_ecc()) {
        const uint64_t pages = erasesize() / writesize();
        std::ranges::fill(spoiled_.subspan(block * pages, pages), spoiled);
    }
}

bool flash_cells::is_erased(uint64_t block) const {
    return all_erased(file_.bytes().subspan(block * erasesize(), erasesize()));
}

uint32_t flash_cells::count_bad() const {
    return static_cast<uint32_t>(std::ranges::count(bad_, 1));
}

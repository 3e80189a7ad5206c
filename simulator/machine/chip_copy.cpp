// SPDX-License-Identifier: Apache-2.0
/**
 * Copies MTD devices to a file and back, page by page with the spare area, so that a chip outlives its simulation.
 *
 *     chip_copy save|restore FILE DEVICE...
 *
 * FILE holds the pages of all devices in turn, each followed by its spare area. `restore` needs erased devices. A page
 * whose spare area is all ones but whose data is not is written with the driver's ECC, any other one as it is. Bad
 * blocks are skipped in both directions.
 */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

struct Chip {
    int fd;
    mtd_info_user info;

    bool is_bad(uint64_t page_start) const {
        auto block = static_cast<loff_t>(page_start / info.erasesize * info.erasesize);
        return ioctl(fd, MEMGETBADBLOCK, &block) > 0;
    }
};

bool is_erased(const uint8_t* data, size_t size) {
    return std::all_of(data, data + size, [](uint8_t byte) { return byte == 0xff; });
}

/** Reads without correction, so that a page with errors is copied with them. */
bool read_page(const Chip& chip, uint64_t start, uint8_t* record) {
    mtd_oob_buf64 spare = {start, 0, chip.info.oobsize, reinterpret_cast<uintptr_t>(record + chip.info.writesize)};
    return pread(chip.fd, record, chip.info.writesize, static_cast<off_t>(start)) == chip.info.writesize &&
           ioctl(chip.fd, MEMREADOOB64, &spare) == 0;
}

bool write_page(const Chip& chip, uint64_t start, const uint8_t* record) {
    const uint8_t* const spare = record + chip.info.writesize;
    const bool computes_ecc = is_erased(spare, chip.info.oobsize);
    if (computes_ecc && is_erased(record, chip.info.writesize)) {
        return true;
    }
    mtd_write_req request{};
    request.start = start;
    request.len = chip.info.writesize;
    request.usr_data = reinterpret_cast<uintptr_t>(record);
    request.mode = MTD_OPS_PLACE_OOB;
    if (!computes_ecc) {
        request.ooblen = chip.info.oobsize;
        request.usr_oob = reinterpret_cast<uintptr_t>(spare);
        request.mode = MTD_OPS_RAW;
    }
    return ioctl(chip.fd, MEMWRITE, &request) == 0;
}

bool copy(const Chip& chip, FILE* file, bool saves) {
    bytes record(chip.info.writesize + chip.info.oobsize, 0xff);
    for (uint64_t start = 0; start < chip.info.size; start += chip.info.writesize) {
        const bool skips = chip.is_bad(start);
        if (saves) {
            std::fill(record.begin(), record.end(), 0xff);
            if ((!skips && !read_page(chip, start, record.data())) ||
                fwrite(record.data(), record.size(), 1, file) != 1) {
                return false;
            }
        } else if (fread(record.data(), record.size(), 1, file) != 1 ||
                   (!skips && !write_page(chip, start, record.data()))) {
            return false;
        }
    }
    return true;
}

bool copy_device(const char* path, FILE* file, bool saves) {
    Chip chip = {open(path, saves ? O_RDONLY : O_RDWR), {}};
    const bool copied = chip.fd >= 0 && ioctl(chip.fd, MEMGETINFO, &chip.info) == 0 &&
                        (!saves || ioctl(chip.fd, MTDFILEMODE, MTD_FILE_MODE_RAW) == 0) && copy(chip, file, saves);
    if (!copied) {
        perror(path);
    }
    close(chip.fd);
    return copied;
}

} // namespace

int main(int count, char** words) {
    if (count < 4) {
        fputs("usage: chip_copy save|restore FILE DEVICE...\n", stderr);
        return 2;
    }
    const bool saves = strcmp(words[1], "save") == 0;
    FILE* const file = fopen(words[2], saves ? "r+b" : "rb");
    if (file == nullptr) {
        perror(words[2]);
        return 1;
    }
    for (int at = 3; at < count; ++at) {
        if (!copy_device(words[at], file, saves)) {
            return 1;
        }
    }
    const bool stored = !saves || (fflush(file) == 0 && fsync(fileno(file)) == 0);
    return fclose(file) == 0 && stored ? 0 : 1;
}

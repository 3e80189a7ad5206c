// SPDX-License-Identifier: Apache-2.0
/**
 * The library's own operations on the devices of a real kernel. Each is compared with the whole partition
 * as another program reads it: exactly the intended bytes changed.
 *
 * usage: library_test READER     the program that shows a partition, its bad blocks left out
 */
#include "flash_model.h"
#include "velox_ota_hl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

std::string reader;

void expect(bool condition, int line = __builtin_LINE()) {
    if (!condition) {
        std::printf("line %d failed\n", line);
        std::exit(1);
    }
}

/** A partition, and what its good blocks should hold. */
struct partition {
    explicit partition(const std::string& name) : path("/dev/block/platform/by-name/" + name), expected(read()) {
    }

    void put(const bytes& data, size_t offset) {
        std::ranges::copy(data, &expected[offset]);
    }

    [[nodiscard]] bool holds() const {
        return read() == expected;
    }

    [[nodiscard]] ota_file_info_t at(uint64_t offset) const {
        ota_file_info_t file{.offset = offset, .size = 0, .medium = OTA_NAND, .path = {}};
        path.copy(file.path, sizeof file.path - 1);
        return file;
    }

    [[nodiscard]] bytes read() const {
        expect(std::system((reader + " " + path + " >/tmp/dump").c_str()) == 0);
        std::ifstream file("/tmp/dump", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string path;
    bytes expected;
};

/** A record of `size` bytes that ends in its CRC. */
bytes sealed(bytes record, size_t size) {
    record.resize(size - 4);
    const uint32_t crc = CRC32(record.data(), record.size());
    record.insert(record.end(), {uint8_t(crc), uint8_t(crc >> 8), uint8_t(crc >> 16), uint8_t(crc >> 24)});
    return record;
}

void test_slots() {
    partition misc("misc");
    expect(ota_get_slot_num() == -1);
    expect(ota_set_slotmeta_to_default() == 0);
    expect(ota_set_next_expected_slot(1) == 0);
    expect(ota_mark_slot_boot_successful(1) == 0);
    misc.put(sealed({'a', 0, 0, 0, 'B', 'C', 'A', 'B', 1, 2, 0, 0, 0x7e, 0, 0x9f}, 32), 2048);
    expect(misc.holds());
    expect(ota_get_next_expected_slot() == 1);
}

void test_status() {
    partition ubootenv("ubootenv");
    antirollback_ver_t versions;
    memset(&versions, 0, sizeof(versions)); // the two bytes that are not a field are stored too
    versions.sec_up_flag = 1;
    versions.sec_ver = 7;
    versions.nosec_ver = 9;
    expect(ota_set_veeprom_flag_default() == 0);
    expect(ota_set_up_status(OTA_FLAG_VERIFY) == 0);
    expect(ota_set_anti_ver_veeprom(&versions) == 0);
    ubootenv.put(sealed({'S', 'A', 'T', 'O', OTA_FLAG_VERIFY}, 1356), 0x30000);
    ubootenv.put(sealed({1, 0, 0, 0, 7, 0, 0, 0, 9}, 16), 0x30880);
    expect(ubootenv.holds());
}

/** An image of several MiB with an odd size at an odd offset, in the library's own chunks; then odd pieces. */
void test_images() {
    partition system("system");
    const bytes image = random_bytes(5 * 1024 * 1024 + 12345, 5);
    std::ofstream("/tmp/image", std::ios::binary).write(reinterpret_cast<const char*>(image.data()), ssize(image));
    ota_file_info_t source{.offset = 0, .size = image.size(), .medium = OTA_RAW, .path = "/tmp/image"};
    ota_file_info_t target = system.at(1000);
    expect(ota_file_to_file(&source, &target, nullptr) == 0);
    system.put(image, 1000);
    expect(system.holds());
    std::mt19937 random(6);
    for (uint32_t round = 0; round < 8; ++round) {
        const size_t offset = random() % (system.expected.size() - 400000);
        const bytes data = random_bytes(1 + random() % 400000, round);
        target = system.at(offset);
        expect(ota_buf_to_file(&target, reinterpret_cast<const char*>(data.data()), data.size()) == ssize(data));
        system.put(data, offset);
        expect(system.holds());
    }
    target = system.at(system.expected.size() - 5);
    expect(ota_buf_to_file(&target, "past the end", 12) == -1);
    expect(system.holds());
}

} // namespace

int main(int /*count*/, char** words) {
    reader = words[1];
    test_slots();
    test_status();
    test_images();
    return 0;
}

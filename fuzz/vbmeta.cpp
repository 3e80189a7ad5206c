// SPDX-License-Identifier: Apache-2.0
/** Verification reads the counters exactly if the only image is a verified-boot image of version 0. */
#include "box.h"
#include "ota_antirollback.h"

#include <cstring>
#include <kastor_efuse.h>
#include <minizip/zip.h>

static bool asked;

int32_t kastor_efuse_sec_anti_read(uint32_t* /*version*/) {
    asked = true;
    return -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    put_input(data, size);
    const zipFile zip = zipOpen64("zip", APPEND_STATUS_CREATE);
    must(zipOpenNewFileInZip(zip, "image", nullptr, nullptr, 0, nullptr, 0, nullptr, 0, 0) == ZIP_OK);
    must(zipWriteInFileInZip(zip, data, static_cast<unsigned>(size)) == ZIP_OK && zipClose(zip, nullptr) == ZIP_OK);
    static update_info_t update = {};
    update.parse_flag = update.update_size = 1;
    std::strcpy(update.update_partition[0], "vbmeta");
    partition_info_t& info = update.partition_info[0];
    info.have_anti_ver = 1;
    info.medium = OTA_EMMC;
    std::strcpy(info.part_file, "image");
    asked = false;
    must(verify_antirollback_version(&update, "zip", ".") == -1);
    must(asked == (size >= 120 && std::memcmp(data, "AVB0", 5) == 0 && std::memcmp(data + 116, "\0\0\0", 4) == 0));
    return 0;
}

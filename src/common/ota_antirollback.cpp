// SPDX-License-Identifier: Apache-2.0
/** The rollback index of verified-boot images, the eFuse counters, and the verdict over a package. */
#include "ota_antirollback.h"

#include "antirollback_verdict.h"
#include "fip_prase.h"
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_paths.h"
#include "veeprom_flag.h"
#include "verified_boot.h"
#include "vx_zip_entry.h"

#include <cstdio>
#include <cstring>
#include <kastor_efuse.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int32_t max_partitions = 32;

int32_t read_avb_img_anti_ver(const char* img_file_path, uint64_t* ver) {
    const ota_stream image(std::fopen(img_file_path, "r"));
    if (image == nullptr) {
        ota_log_error("open file %s failed!\n", img_file_path);
        return -1;
    }
    uint8_t magic[verified_boot_magic_size] = {};
    if (std::fread(magic, sizeof magic, 1, image.get()) != 1) {
        ota_log_error("get avb image magic error!\n");
        return -1;
    }
    if (check_verified_boot_magic(magic).state != format_state::valid) {
        ota_log_warning("%s is not avb image!\n", img_file_path);
        return -1;
    }
    (void)std::fseek(image.get(), verified_boot_index_offset, SEEK_SET);
    uint8_t index[verified_boot_index_size] = {};
    if (std::fread(index, sizeof index, 1, image.get()) != 1) {
        ota_log_error("get avb image antirollback version error!\n");
        return -1;
    }
    *ver = load_rollback_index(index);
    return 0;
}

/** Adds the index of one image to the versions so far. */
int32_t vx_avb_img_anti_read(const update_info_t* update_info, const char* img_file_path, ota_medium_e medium,
                             firmware_versions* versions) {
    if (update_info == nullptr) {
        ota_log_error("'update_info' is a null pointer.\n");
        return -1;
    }
    if (medium != OTA_EMMC) {
        ota_log_error("Medium %d does not support.\n", medium);
        return -1;
    }
    uint64_t tmp_ver = 0;
    if (read_avb_img_anti_ver(img_file_path, &tmp_ver) != 0) {
        return -1;
    }
    if (!add_firmware_version(versions, firmware_kind::vbmeta, tmp_ver)) {
        ota_log_error("image %s antirollback versions %ld:%d is inconsistent\n", img_file_path,
                      static_cast<long>(tmp_ver), versions->vbmeta.value_or(0));
        return -1;
    }
    return 0;
}

int32_t read_fip_img_anti_ver(const char* img_file_path, firmware_kind kind, firmware_versions* versions) {
    const bool is_miniboot = kind == firmware_kind::miniboot;
    uint32_t version = 0;
    if (vx_fip_img_anti_read(img_file_path, is_miniboot ? SEC_MINIBOOT_IMG : NOSEC_UBOOT_IMG, &version) != 0) {
        return -1;
    }
    (void)add_firmware_version(versions, kind, version);
    ota_log_info("%s image file version: %d\n", is_miniboot ? "miniboot" : "uboot", version);
    return 0;
}

/** A name that fills its array is not terminated there; this copy always is. */
template <size_t Size>
struct terminated {
    explicit terminated(const char (&name)[Size]) {
        std::memcpy(text, name, Size);
    }
    char text[Size + 1] = {};
};

/** Reads the version of an extracted image; the partition's name gives its kind. */
int32_t read_image_version(const update_info_t* update_info, int32_t i, const char* img_file_path,
                           firmware_versions* versions) {
    const terminated partition(update_info->update_partition[i]);
    const auto kind = firmware_kind_of(partition.text);
    if (!kind) {
        return 0;
    }
    if (*kind != firmware_kind::vbmeta) {
        return read_fip_img_anti_ver(img_file_path, *kind, versions);
    }
    if (vx_avb_img_anti_read(update_info, img_file_path, update_info->partition_info[i].medium, versions) != 0) {
        return -1;
    }
    ota_log_info("vbmeta image file version: %d\n", versions->vbmeta.value_or(0));
    return 0;
}

/**
 * Extracts one image and returns its path. The verified file has to come from the package: it must not be
 * an older file under the name of a link or directory entry, the target of a link, or whatever is at a
 * truncated path.
 */
int32_t extract_image(const char* part_file, const char* zip_path, const char* unzip_path,
                      char (&img_file_path)[ota_entry_size]) {
    if (zip_extract_regular_file(zip_path, unzip_path, part_file) != 0) {
        ota_log_error("Uncompress %s failed\n", part_file);
        return -1;
    }
    const int length = std::snprintf(img_file_path, sizeof img_file_path, "%s/%s", unzip_path, part_file);
    struct stat status {};
    if (static_cast<size_t>(length) >= sizeof img_file_path && stat(img_file_path, &status) == 0 &&
        !S_ISDIR(status.st_mode)) {
        ota_log_error("the path of %s is too long, and its cut form is that of another file\n", part_file);
        return -1;
    }
    return 0;
}

/** Extracts one image, reads its version and removes it. An image that cannot be read stays. */
int32_t visit_image(const update_info_t* update_info, int32_t i, const char* zip_path, const char* unzip_path,
                    firmware_versions* versions) {
    const terminated part_file(update_info->partition_info[i].part_file);
    char img_file_path[ota_entry_size];
    if (extract_image(part_file.text, zip_path, unzip_path, img_file_path) != 0) {
        return -1;
    }
    if (read_image_version(update_info, i, img_file_path, versions) != 0) {
        return -1;
    }
    if (unlink(img_file_path) != 0) { /* a truncated path may be that of a directory, which stays */
        ota_log_error("Remove %s failed\n", img_file_path);
    }
    return 0;
}

int32_t get_image_antirollback(const update_info_t* update_info, firmware_versions* versions, const char* zip_path,
                               const char* unzip_path) {
    if (update_info->update_size < 0 || update_info->update_size > max_partitions) {
        ota_log_error("update partition number %d is out of range\n", update_info->update_size);
        return -1;
    }
    for (int32_t i = 0; i < update_info->update_size; ++i) {
        if (update_info->partition_info[i].have_anti_ver == 0) {
            continue;
        }
        if (visit_image(update_info, i, zip_path, unzip_path, versions) != 0) {
            return -1;
        }
    }
    if (check_firmware_versions(*versions, std::nullopt).reason == antirollback_reason::kinds_differ) {
        ota_log_error("uboot and vbmeta versions are inconsistent\n");
        return -1;
    }
    return 0;
}

} // namespace

int32_t get_efuse_antirollback(antirollback_ver_t* ver) {
    if (ver == nullptr) {
        ota_log_error("'ver' is a null pointer.\n");
        return -1;
    }
    if (kastor_efuse_sec_anti_read(&ver->sec_ver) != 0) {
        ota_log_error("secure antirollback version read failed\n");
        return -1;
    }
    if (kastor_efuse_nosec_anti_read(&ver->nosec_ver) != 0) {
        ota_log_error("nosecure antirollback version read failed\n");
        return -1;
    }
    return 0;
}

int32_t set_efuse_antirollback(antirollback_ver_t* ver) {
    if (ver == nullptr) {
        ota_log_error("'ver' is a null pointer.\n");
        return -1;
    }
    if (ver->sec_up_flag == 1 && kastor_efuse_sec_anti_write(ver->sec_ver) != 0) {
        ota_log_error("Secure antirollback version write failed\n");
        return -1;
    }
    /* The board's library answers a successful non-secure write with 0 or a positive number. */
    if (ver->nosec_up_flag == 1 && kastor_efuse_nosec_anti_write(ver->nosec_ver) < 0) {
        ota_log_error("nosecure antirollback version write failed\n");
        return -1;
    }
    return 0;
}

int32_t verify_antirollback_version(update_info_t* update_info, const char* zip_path, const char* unzip_path) {
    firmware_versions versions;
    antirollback_ver_t efuse_ver{};
    if (update_info == nullptr) {
        ota_log_error("'update_info' is a null pointer.\n");
        return -1;
    }
    if (update_info->parse_flag == 0) {
        ota_log_info("no parse json file!\n");
        return -1;
    }
    if (get_image_antirollback(update_info, &versions, zip_path, unzip_path) != 0 ||
        get_efuse_antirollback(&efuse_ver) != 0) {
        ota_log_error("antirollback version get failed!\n");
        return -1;
    }
    const auto verdict =
        check_firmware_versions(versions, antirollback_counters{efuse_ver.sec_ver, efuse_ver.nosec_ver});
    if (verdict.reason != antirollback_reason::none) {
        ota_log_error("antirollback version check failed!\n");
        return -1;
    }
    antirollback_ver_t image_ver;
    std::memset(&image_ver, 0, sizeof image_ver); /* the two bytes between the fields are stored too */
    image_ver.sec_ver = verdict.secure;
    image_ver.nosec_ver = verdict.non_secure;
    image_ver.nosec_up_flag = static_cast<uint8_t>(update_info->nosec_up_flag);
    image_ver.sec_up_flag = static_cast<uint8_t>(update_info->sec_up_flag);
    const int32_t ret = ota_set_anti_ver_veeprom(&image_ver);
    if (ret < 0) {
        ota_log_error("set antirollback version in veeprom failed\n");
        return ret;
    }
    ota_log_info("antirollback version check success!\n");
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
/** The status record and the anti-rollback record: stored form, repair, and access by selector. */
#include "veeprom_flag.h"

#include "antirollback_record.h"
#include "ota_log.h"
#include "ota_partition.h"
#include "ota_paths.h"
#include "ota_record.h"
#include "ota_types.h"
#include "status_record.h"

#include <cstring>

ota_update_owner_e g_ota_owner = NORMAL_BOOT;

namespace {

/** The place of a selector's value in the status record. */
struct status_field {
    size_t offset;
    size_t size;
};

/* By selector. Selectors 3 and 4 are in the reverse order of their fields. */
constexpr status_field status_fields[] = {
    {offsetof(ota_status_t, up), 4},            /* OTA_VEEPROM_UPDATE_FLAG */
    {offsetof(ota_status_t, up_system), 4},     /* OTA_VEEPROM_SYS_UPDATE_FLAG */
    {offsetof(ota_status_t, up_backup), 4},     /* OTA_VEEPROM_BAK_UPDATE_FLAG */
    {offsetof(ota_status_t, up_middleware), 4}, /* OTA_VEEPROM_MIDDLEWARE_UPDATE_FLAG */
    {offsetof(ota_status_t, up_app), 4},        /* OTA_VEEPROM_APP_UPDATE_FLAG */
    {offsetof(ota_status_t, up_param), 4},      /* OTA_VEEPROM_PARAM_UPDATE_FLAG */
    {offsetof(ota_status_t, owner), 4},         /* OTA_VEEPROM_OWNER */
    {offsetof(ota_status_t, next_slot), 4},     /* OTA_VEEPROM_EXPE_SLOT */
    {offsetof(ota_status_t, update_part), sizeof(update_part_t)},
};
static_assert(sizeof status_fields / sizeof *status_fields == OTA_VEEPROM_PART_ARRAY + 1);

bool is_status_selector(ota_veeprom_type_e flag) {
    return static_cast<uint32_t>(flag) <= OTA_VEEPROM_PART_ARRAY;
}

int32_t crc32_calculate(ota_status_t* status) {
    if (status == nullptr) {
        return -OTAERR_NULLPOINTER;
    }
    seal_status_record(status);
    return 0;
}

int32_t seal_status(ota_status_t* status) {
    const int32_t ret = crc32_calculate(status);
    if (ret < 0) {
        ota_log_error("ota status crc32 calculate failed\n");
    }
    return ret;
}

int32_t is_ota_status_valid(const ota_status_t* status) {
    if (status == nullptr) {
        ota_log_error("Invalid input parameter, null ptr\n");
        return -OTAERR_NULLPOINTER;
    }
    const format_state state = check_status_record(*status).state;
    if (state == format_state::absent || state == format_state::foreign) {
        ota_log_warning("magic number is wrong\n");
        return -1;
    }
    ota_log_info("veeprom crc, oricrc[%x], newcrc[%x], offset[%ld]\n", status->crc32_le,
                 status_record_checksum(*status), static_cast<long>(offsetof(ota_status_t, crc32_le)));
    return state == format_state::valid ? 0 : -1;
}

int32_t ota_read_from_veeprom(char* buffer, uint32_t buffer_len, uint32_t offset) {
    ota_file_info_t veeprom_info{};
    int32_t ret = locate_record(ota_ubootenv_partition, offset, &veeprom_info);
    if (ret < 0) {
        return ret;
    }
    ret = ota_file_to_buf(&veeprom_info, buffer, buffer_len);
    if (ret < 0) {
        ota_log_error("veeprom flag  read failed, ret %d\n", ret);
        return ret;
    }
    return 0;
}

int32_t ota_write_to_veeprom(const char* buffer, uint32_t buffer_len, uint32_t offset) {
    ota_file_info_t veeprom_info{};
    int32_t ret = locate_record(ota_ubootenv_partition, offset, &veeprom_info);
    if (ret < 0) {
        return ret;
    }
    ret = ota_buf_to_file(&veeprom_info, buffer, buffer_len);
    if (ret < 0) {
        ota_log_error("veeprom flag write failed, ret %d\n", ret);
        return ret;
    }
    return 0;
}

int32_t write_status(const ota_status_t* status) {
    const int32_t ret =
        ota_write_to_veeprom(reinterpret_cast<const char*>(status), sizeof *status, status_record_offset);
    if (ret < 0) {
        ota_log_error("write ota status to veeprom failed\n");
    }
    return ret;
}

/** Creates a new record in `status`, whose reserved bytes are kept, and stores it. */
int32_t ota_init_status(ota_status_t* status) {
    if (status == nullptr) {
        ota_log_error("ota status is NULL\n");
        return -OTAERR_NULLPOINTER;
    }
    const int32_t slot = ota_get_cur_slot();
    if (slot < 0) {
        ota_log_error("Get current slot failed\n");
        return -1;
    }
    status->magic = status_record_magic;
    status->up = OTA_FLAG_NORMAL;
    status->up_backup = OTA_FLAG_NORMAL;
    status->up_system = OTA_FLAG_NORMAL;
    status->up_middleware = OTA_FLAG_NORMAL;
    status->up_app = OTA_FLAG_NORMAL;
    status->up_param = OTA_FLAG_NORMAL;
    status->owner = NORMAL_BOOT;
    status->next_slot = static_cast<uint32_t>(slot);
    status->update_part = {};
    const int32_t ret = seal_status(status);
    return ret < 0 ? ret : write_status(status);
}

/** Reads the status record and recreates it when it is not valid. */
int32_t fetch_status(ota_status_t* status) {
    int32_t ret = ota_read_from_veeprom(reinterpret_cast<char*>(status), sizeof *status, status_record_offset);
    if (ret < 0) {
        return ret;
    }
    if (is_ota_status_valid(status) == 0) {
        return 0;
    }
    ota_log_warning("OTA status in veeprom is invalid, init\n");
    ret = ota_init_status(status);
    if (ret < 0) {
        ota_log_error("get ota status failed\n");
    }
    return ret;
}

int32_t set_veeprom_update_status(ota_veeprom_type_e flag, const uint32_t* value) {
    ota_status_t status{};
    if (value == nullptr) {
        ota_log_error("ota status value is NULL\n");
        return -1;
    }
    int32_t ret = fetch_status(&status);
    if (ret < 0) {
        return ret;
    }
    const status_field field = status_fields[flag];
    std::memcpy(reinterpret_cast<char*>(&status) + field.offset, value, field.size);
    if (flag == OTA_VEEPROM_OWNER) {
        g_ota_owner = status.owner;
    }
    ret = seal_status(&status);
    if (ret < 0) {
        return ret;
    }
    int32_t word = 0;
    std::memcpy(&word, value, sizeof word);
    ota_log_info("veeprom: flag [%d], value [%d]\n", flag, word);
    return write_status(&status);
}

int32_t get_veeprom_update_status(ota_veeprom_type_e flag, uint32_t* value) {
    ota_status_t status{};
    if (value == nullptr) {
        ota_log_error("ota status value is NULL\n");
        return -1;
    }
    const int32_t ret = fetch_status(&status);
    if (ret < 0) {
        return ret;
    }
    const status_field field = status_fields[flag];
    std::memcpy(value, reinterpret_cast<const char*>(&status) + field.offset, field.size);
    ota_log_info("update part num: [%d]\n", status.update_part.num);
    return 0;
}

int32_t set_veeprom_other_status(ota_veeprom_type_e flag, const uint32_t* value) {
    if (value == nullptr) {
        ota_log_error("veeprom flag value is NULL\n");
        return -1;
    }
    int32_t ret = -1;
    if (flag == OTA_VEEPROM_ANTI_VER) {
        ret = ota_write_to_veeprom(reinterpret_cast<const char*>(value), sizeof(antirollback_ver_t),
                                   antirollback_record_offset);
    } else {
        ota_log_error("invalid veeprom flag\n");
    }
    if (ret < 0) {
        ota_log_error("veeprom flag write failed, ret %d\n", ret);
    }
    return ret;
}

int32_t get_veeprom_other_status(ota_veeprom_type_e flag, uint32_t* value) {
    if (value == nullptr) {
        ota_log_error("veeprom flag value is NULL\n");
        return -1;
    }
    /* Read into a local: after a short read the caller must not find its own old bytes in the record. */
    antirollback_ver_t stored{};
    int32_t ret = -1;
    if (flag == OTA_VEEPROM_ANTI_VER) {
        ret = ota_read_from_veeprom(reinterpret_cast<char*>(&stored), sizeof stored, antirollback_record_offset);
    } else {
        ota_log_error("invalid veeprom flag\n");
    }
    if (ret < 0) {
        ota_log_error("veeprom flag read failed, ret %d\n", ret);
        return ret;
    }
    std::memcpy(value, &stored, sizeof stored);
    return ret;
}

/* A value of any type is passed as a pointer to its first 32-bit word. */

int32_t set_value(ota_veeprom_type_e flag, void* value) {
    return ota_set_veeprom_flag(flag, static_cast<uint32_t*>(value));
}

int32_t get_value(ota_veeprom_type_e flag, void* value) {
    return ota_get_veeprom_flag(flag, static_cast<uint32_t*>(value));
}

} // namespace

int32_t ota_write_to_veeprom_force(ota_status_t* status, ota_file_info_t* veeprom_info) {
    if (status == nullptr || veeprom_info == nullptr) {
        ota_log_error("ota status or veeprom info is NULL\n");
        return -OTAERR_NULLPOINTER;
    }
    status->magic = status_record_magic;
    status->owner = OTA_TOOL;
    veeprom_info->offset += status_record_offset;
    int32_t ret = seal_status(status);
    if (ret < 0) {
        return ret;
    }
    ret = ota_buf_to_file(veeprom_info, reinterpret_cast<const char*>(status), sizeof *status);
    if (ret < 0) {
        ota_log_error("veeprom flag write failed, ret %d\n", ret);
        return ret;
    }
    return 0;
}

int32_t ota_set_veeprom_flag(ota_veeprom_type_e flag, uint32_t* value) {
    return is_status_selector(flag) ? set_veeprom_update_status(flag, value) : set_veeprom_other_status(flag, value);
}

int32_t ota_get_veeprom_flag(ota_veeprom_type_e flag, uint32_t* value) {
    return is_status_selector(flag) ? get_veeprom_update_status(flag, value) : get_veeprom_other_status(flag, value);
}

int32_t ota_set_up_status(ota_update_flag_e status) {
    return set_value(OTA_VEEPROM_UPDATE_FLAG, &status);
}

int32_t ota_get_up_status(ota_update_flag_e* status) {
    return get_value(OTA_VEEPROM_UPDATE_FLAG, status);
}

int32_t ota_set_system_up_status(ota_update_flag_e status) {
    return set_value(OTA_VEEPROM_SYS_UPDATE_FLAG, &status);
}

int32_t ota_get_system_up_status(ota_update_flag_e* status) {
    return get_value(OTA_VEEPROM_SYS_UPDATE_FLAG, status);
}

int32_t ota_set_backup_up_status(ota_update_flag_e status) {
    return set_value(OTA_VEEPROM_BAK_UPDATE_FLAG, &status);
}

int32_t ota_get_backup_up_status(ota_update_flag_e* status) {
    return get_value(OTA_VEEPROM_BAK_UPDATE_FLAG, status);
}

int32_t ota_set_middleware_up_status(ota_update_flag_e status) {
    return set_value(OTA_VEEPROM_MIDDLEWARE_UPDATE_FLAG, &status);
}

int32_t ota_get_middleware_up_status(ota_update_flag_e* status) {
    return get_value(OTA_VEEPROM_MIDDLEWARE_UPDATE_FLAG, status);
}

int32_t ota_set_app_up_status(ota_update_flag_e status) {
    return set_value(OTA_VEEPROM_APP_UPDATE_FLAG, &status);
}

int32_t ota_get_app_up_status(ota_update_flag_e* status) {
    return get_value(OTA_VEEPROM_APP_UPDATE_FLAG, status);
}

int32_t ota_set_param_up_status(ota_update_flag_e status) {
    return set_value(OTA_VEEPROM_PARAM_UPDATE_FLAG, &status);
}

int32_t ota_get_param_up_status(ota_update_flag_e* status) {
    return get_value(OTA_VEEPROM_PARAM_UPDATE_FLAG, status);
}

int32_t ota_set_owner(ota_update_owner_e owner) {
    return set_value(OTA_VEEPROM_OWNER, &owner);
}

int32_t ota_get_owner(ota_update_owner_e* owner) {
    return get_value(OTA_VEEPROM_OWNER, owner);
}

int32_t ota_set_next_slot(uint32_t slot) {
    ota_log_info("next slot veeprom %d\n", slot);
    return set_value(OTA_VEEPROM_EXPE_SLOT, &slot);
}

int32_t ota_get_next_slot(uint32_t* slot) {
    return get_value(OTA_VEEPROM_EXPE_SLOT, slot);
}

int32_t ota_set_part_array(update_part_t* update_part) {
    return set_value(OTA_VEEPROM_PART_ARRAY, update_part);
}

int32_t ota_get_part_array(update_part_t* update_part) {
    return get_value(OTA_VEEPROM_PART_ARRAY, update_part);
}

int32_t ota_get_anti_ver_veeprom(antirollback_ver_t* ver) {
    const int32_t ret = get_value(OTA_VEEPROM_ANTI_VER, ver);
    if (ret != 0) {
        ota_log_error("get antirollback version from veeprom failed\n");
        return ret;
    }
    if (check_antirollback_record(*ver).state != format_state::valid) {
        ota_log_error("antirollback version CRC verify failed\n");
        std::memset(ver, 0, sizeof *ver);
        return -1;
    }
    return 0;
}

int32_t ota_set_anti_ver_veeprom(antirollback_ver_t* ver) {
    if (ver == nullptr) {
        return -1;
    }
    seal_antirollback_record(ver);
    const int32_t ret = set_value(OTA_VEEPROM_ANTI_VER, ver);
    if (ret != 0) {
        ota_log_error("set antirollback version to veeprom failed\n");
    }
    return ret;
}

int32_t ota_set_veeprom_flag_default() {
    ota_status_t status{};
    antirollback_ver_t ver;
    std::memset(&ver, 0, sizeof ver); /* the two bytes between the fields are stored too */
    if (ota_init_status(&status) != 0) {
        ota_log_error("set ota status default failed\n");
        return -1;
    }
    if (ota_set_anti_ver_veeprom(&ver) != 0) {
        ota_log_error("set antirollback version default failed\n");
        return -1;
    }
    ota_log_info("veeprom flag set default\n");
    return 0;
}

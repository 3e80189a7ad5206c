// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Shared enumerations and records, checksums, boot parameters, the choice of the update slot, and the
 * small services: staged unpacking, digest comparison, lock, versions and inventory.
 */
#ifndef OTA_UTILS_H
#define OTA_UTILS_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/** Boot media. OTA_RAW and OTA_EMMC use plain file access, every other number flash access. */
typedef enum OTA_ENUM_BASE {
    OTA_RAW = 0, /**< a plain file or block node; not a boot medium */
    OTA_NOR = 1,
    OTA_EMMC = 2,
    OTA_NAND = 3,
    OTA_MEDIUM_NUM = 4, /**< count of the enumeration, not a medium */
} ota_medium_e;

/** Kinds of partition. Only AB exists once per slot, under a name with the suffix _a or _b. */
typedef enum OTA_ENUM_BASE {
    GOLDEN = 0,
    AB = 1,
    BAK = 2,
    PERMANENT = 3,
    OTA_PART_TYPE_NUM = 4, /**< count of the enumeration, not a type */
} ota_part_type_e;

/** What the bootloader started. */
typedef enum OTA_ENUM_BASE {
    NORMAL_MODE = 0,
    RECOVERY_MODE = 1,
} ota_boot_mode;

/** Stages of an update, as update tools record them. The numbers are stored: do not change them. */
typedef enum OTA_ENUM_BASE {
    OTA_FLAG_NORMAL = 0,   /**< no update in progress */
    OTA_FLAG_BURN = 1,     /**< being written */
    OTA_FLAG_VERIFY = 2,   /**< written, being compared */
    OTA_FLAG_VERIFIED = 3, /**< written and compared */
} ota_update_flag_e;

/** How a partition is updated; for update tools, not read by this library. */
typedef enum OTA_ENUM_BASE {
    IMAGE_UP = 0,
    IMAGE_DIFF_UP = 1,
    FILE_UP = 2,
    FILE_DIFF_UP = 3,
    UPGRADE_METHOD_NUM = 4, /**< count of the enumeration, not a method */
} upgrade_method;

/** The target or source of a transfer. Filled in and owned by the caller. */
typedef struct ota_file_info_s {
    uint64_t offset;     /**< byte where the transfer starts; on NAND see ota_nand_update.h */
    uint64_t size;       /**< bytes to take from a source; only ota_file_to_file() reads it */
    ota_medium_e medium; /**< chooses plain access or flash access */
    char path[128];      /**< device or file, terminated by a NUL */
} ota_file_info_t;

/** One partition of an update description. This library reads the fields marked (read). */
typedef struct partition_info_s {
    uint64_t img_size;      /**< bytes of the image */
    uint32_t have_anti_ver; /**< non-zero: the image carries an anti-rollback version (read) */
    ota_medium_e medium;    /**< where the partition is (read for verified-boot images) */
    ota_part_type_e type;   /**< kind of the partition */
    upgrade_method method;  /**< how it is updated */
    char part_name[32];     /**< name of the partition, without a slot suffix */
    char part_file[64];     /**< name of the image's entry in the package (read) */
    char md5[2][33];        /**< digests in hexadecimal, for the update tool */
    uint64_t md5_scope[2];  /**< for the update tool */
} partition_info_t;

/** A parsed update description, at most 32 partitions. Filled by the update tool. */
typedef struct update_info_s {
    int32_t parse_flag;                  /**< non-zero once the description has been parsed (read) */
    int32_t sec_up_flag;                 /**< 1: raise the secure eFuse counter (low 8 bits are read) */
    int32_t nosec_up_flag;               /**< the same for the non-secure counter (low 8 bits are read) */
    char sys_ver[256];                   /**< for the update tool */
    char old_sys_ver[256];               /**< for the update tool */
    char update_partition[32][32];       /**< names; entry i belongs to partition_info[i] (read) */
    char backup_dir[128];                /**< for the update tool */
    int32_t update_size;                 /**< number of partitions, 0 to 32 (read) */
    uint8_t diff_flag;                   /**< for the update tool */
    int32_t ab_sync;                     /**< for the update tool */
    int32_t nor_sign;                    /**< for the update tool */
    partition_info_t partition_info[32]; /**< the partitions */
} update_info_t;

/**
 * Anti-rollback versions with their update flags; 16 bytes, stored as they are in memory, little-endian.
 * The two bytes after the flags are padding. They are stored as the caller sets them and are covered by
 * the CRC, so clear a new record with memset().
 */
typedef struct antirollback_ver_s {
    uint8_t sec_up_flag;   /**< 1: the secure counter is to be raised to sec_ver */
    uint8_t nosec_up_flag; /**< 1: the non-secure counter is to be raised to nosec_ver */
    uint32_t sec_ver;      /**< version in the miniboot certificates */
    uint32_t nosec_ver;    /**< version shared by the uboot certificates and the vbmeta index */
    uint32_t crc32_le;     /**< CRC32() over bytes 0 to 11 */
} antirollback_ver_t;

/** An entry of the UEFI GPT partition entry array, 128 bytes, raw and little-endian. */
struct gpt_entry {
    uint64_t part_type_guid_low;  /**< bytes 0 to 7 of the type's GUID */
    uint64_t part_type_guid_high; /**< bytes 8 to 15 of the type's GUID; both 0 in an unused entry */
    uint64_t uuid_low;            /**< bytes 0 to 7 of the partition's own GUID */
    uint64_t uuid_high;           /**< bytes 8 to 15 of it */
    uint64_t start_lba;           /**< first block of the partition */
    uint64_t end_lba;             /**< its last block */
    uint64_t attrs;               /**< attribute bits */
    uint16_t part_name[36];       /**< UTF-16, zero filled */
};

/* ---- checksums ---- */

/**
 * CRC-32/ISO-HDLC (reflected polynomial 0xEDB88320, as in zip and Ethernet) of `size` bytes.
 * @param buf  the bytes; not touched when `size` is 0
 * @return the checksum; 0 for an empty input, 0xCBF43926 for the digits 1 to 9
 */
OTA_API uint32_t CRC32(const uint8_t* buf, size_t size);

/**
 * CRC-16/CCITT-FALSE (polynomial 0x1021, initial value 0xFFFF, not reflected) of `size` bytes.
 * @param buf  the bytes; not touched when `size` is 0
 * @return the checksum; 0xFFFF for an empty input, 0x29B1 for the digits 1 to 9
 */
OTA_API uint16_t CRC16(const uint8_t* buf, size_t size);

/* ---- boot parameters, from the kernel command line, read again at each call ---- */

/**
 * The medium that the board booted from, by the key "veloxboot.medium=".
 * @return OTA_NAND for "nand", OTA_NOR for "nor", OTA_EMMC for "MMC"; -1 for anything else or no key
 */
OTA_API int32_t get_boot_medium(void);

/**
 * The boot mode, by the key "veloxboot.mode=".
 * @return RECOVERY_MODE for "recovery", NORMAL_MODE for "normal"; -1 for anything else or no key
 */
OTA_API int32_t get_boot_mode(void);

/**
 * The running slot, by the key "veloxboot.slot_suffix=_" within the first 1023 bytes.
 * @return 0, 1, 2 for the suffixes a, b, c; -1 without the key or with any other letter
 */
OTA_API int32_t ota_get_cur_slot(void);

/**
 * The device paths of a partition under "/dev/block/platform/by-name/".
 * @param part_name     name without a slot suffix
 * @param cur_dev_path  out, 128 bytes: the copy that is left alone
 * @param opp_dev_path  out, 128 bytes: the copy that is read and written
 * @param type          AB: one device per slot, chosen by ota_get_update_slot(). Any other type: both
 *                      paths are the same device. Never pass "misc" as AB.
 * @return 0; -1 for a null argument, or when the update slot cannot be determined: both outputs are
 *         unchanged. A path of more than 127 characters is truncated.
 */
OTA_API int32_t get_part_device_name(const char* part_name, char* cur_dev_path, char* opp_dev_path,
                                     ota_part_type_e type);

/**
 * The slot that an update is written to: the one that is not running, unless only that one is marked
 * as booted successfully; then the running slot is written and the marked one is left alone.
 * @return the slot; -1 when the running slot or the state of either slot cannot be determined
 */
OTA_API int32_t ota_get_update_slot(void);

/* ---- file names and package files ---- */

/**
 * Tests whether the text after the last dot of the last component of `file` equals `cmp_name`.
 * Case-sensitive; only '/' separates components. A name without a dot has an empty extension.
 * @return 1 yes, 0 no, -1 for a null argument or a name of 128 bytes or more
 */
OTA_API int32_t is_xxx_file(const char* file, const char* cmp_name);

/**
 * Tests that a package file exists and has the extension `suffix`.
 * @return 0; -1 for a null argument, a missing file or another extension. An existing file with a name
 *         of 128 bytes or more passes, since its extension cannot be checked.
 */
OTA_API int32_t ota_check_file(const char* package_path, const char* suffix);

/**
 * Unpacks a whole package into a staging directory, after checking that there is enough space for it.
 *
 * The check is skipped for a directory that begins with "/tmp/ota/unzip_dir". For any other, the free
 * space on the file system of "/userdata/ota/unzip_dir" has to exceed, in KiB,
 * (unpacked size + 1048575) / 1024 + 1024.
 * @param unzip_dir  created if missing
 * @param img_size   the sizes of the image entries are added to this value; the caller clears it. May
 *                   be null only for an exempt directory.
 * @return 0; -1 for a null argument, a directory that cannot be created, too little space, or a failed
 *         extraction, after which the files unpacked so far stay
 */
OTA_API int32_t unzip_ota_file(const char* zip_path, const char* unzip_dir, uint64_t* img_size);

/**
 * Extracts the program "ota_process" from the first package of a list into "/tmp/process/".
 * @param zip_path      absolute package paths separated by ';'; the first that is not empty is used,
 *                      and only the first 511 bytes are read
 * @param process_path  out: path of the program, "/tmp/process//ota_process"
 * @param len           size of `process_path`; the whole path takes 26 bytes. With 0, `process_path` may be
 *                      null: the program is extracted and no path returned
 * @return 0; -6 for a null argument, an empty list or a relative path; -16 when the package does not
 *         exist; -15 when the program cannot be extracted from it: the working directory may then be
 *         "/tmp/process/"
 */
OTA_API int32_t get_ota_process(const char* zip_path, char* process_path, uint32_t len);

/**
 * Bytes available to an unprivileged process on the file system of `path`.
 * @return the bytes; all bits set for a null path or when the file system cannot be queried
 */
OTA_API uint64_t get_free_space(char* path);

/** Size of a file in bytes; -1 for a null path or when stat() fails. */
OTA_API long int get_file_size(const char* file_path);

/**
 * The last component of a path.
 * @return a pointer into `file_path` just after its last '/'; null without a '/' or for a null path
 */
OTA_API char* ota_get_file_name(char* file_path);

/* ---- digests of partitions ---- */

/**
 * Compares two partitions or files by the MD5 of all but their last `garbage` bytes; see MD5Dev().
 * @return 0 when equal; -1 when they differ, when a path is null, or when either cannot be read
 */
OTA_API int32_t ota_check_two_partition_md5(const char* partition1_path, const char* partition2_path, int32_t garbage);

/* ---- single-instance lock and commands ---- */

/**
 * Takes the advisory lock of an update (flock, exclusive) without waiting. Only one lock is remembered: once
 * a second file is locked, the first lock can no longer be released and lasts until the process ends. A
 * forked child, or a command run by ota_system_exe(), inherits the descriptor and shares the lock, which
 * lasts until all of them have ended; put_file_lock() in one releases it for all.
 * @param lock_file  created if missing (mode 0766 less the umask); never written to or removed
 * @return 0; -1 when the file cannot be opened or the lock is held, by this process or another
 */
OTA_API int32_t get_file_lock(char* lock_file);

/**
 * Releases the lock that get_file_lock() took last.
 * @param lock_file  names the file in messages only
 * @return 0; -1 when no lock is held or the release failed. The descriptor is closed in both cases.
 */
OTA_API int32_t put_file_lock(char* lock_file);

/**
 * Runs a command with system(), that is, through the shell. Never pass it untrusted text, such as a name
 * from a package: the shell would execute it.
 * @return 0 when it ended normally with exit status 0; -1 for anything else and for a null command
 */
OTA_API int32_t ota_system_exe(char* cmd);

/* ---- versions ---- */

/**
 * Extracts the version from a line: from the V of the first "_V" to the first blank or the end. One
 * trailing CR or LF is removed.
 * @param in_version   must be writable: the blank after the version becomes a NUL
 * @param out_version  out, 128 bytes; a longer version is truncated
 * @return the full length of the version; -1 for a null argument or without the marker
 */
OTA_API int32_t parse_version_info(const char* in_version, char* out_version);

/**
 * Reads a version file (at most 127 bytes of it) and parses it with parse_version_info().
 * @param verbuf  out, 128 bytes
 * @return the length of the version; -1 when the file cannot be opened or holds no version
 */
OTA_API int32_t get_system_version(const char* ver_path, char* verbuf);

/**
 * Compares two versions, segment by segment ('.' and '-' separate), up to the first '_' or the end of
 * either. The value of a segment is its character codes minus 48, taken as decimal digits in wrapping
 * 32-bit arithmetic, so equal letters in both are harmless.
 * @return 1 when `v1` is older than `v2`; 0 otherwise, including when they are equal, when one is a prefix
 *         of the other, and for a null argument
 */
OTA_API int32_t compare_sys_versions(const char* v1, const char* v2);

/* ---- inventory ---- */

/**
 * Lists the base names of the A/B partitions: entries of the device directory that end in _a or _b.
 * @param abparts  rows of 128 bytes, one for each distinct base name. The function does not know how many there
 *                 are: provide as many as the board can need. The end of the list is not marked; clear
 *                 the rows first and stop at the first empty one. A base name of more than 127
 *                 characters is skipped with a warning.
 * @return 0; -1 for a null argument or when the directory cannot be opened
 */
OTA_API int32_t get_all_ab_partitions(char (*abparts)[128]);

/**
 * Reads the 128 entries of the UEFI GPT partition entry array of the board's eMMC, at byte 1024 of
 * "/dev/block/platform/by-name/blk". The GPT header is not read and nothing is verified.
 * @param gpt_entries  room for 128 entries
 * @return 0; -1 for a null argument, when the device cannot be opened, or when it is too short: the
 *         array then holds what was read
 */
OTA_API int32_t emmc_gpt_entry_read(struct gpt_entry* gpt_entries);

/**
 * Turns the UTF-16 name of a GPT entry into bytes: the low byte of each of the 36 units, with '!' for
 * one that is not printable. No terminator is added.
 * @param result  out, 36 bytes
 */
OTA_API void convert_partname(uint16_t* str, char* result);

OTA_END_DECLS

#endif

// SPDX-License-Identifier: Apache-2.0
/**
 * The description of an update, "update.json" in the package. Nothing in it is used before all of it
 * has been checked: unknown fields, wrong types and values out of range are refused by name.
 */
#ifndef TOOL_DESCRIPTION_H
#define TOOL_DESCRIPTION_H

#include "board/digest.h"
#include "console/json.h"
#include "velox_ota_hl.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

inline constexpr char description_entry[] = "update.json";
inline constexpr size_t signature_count = 8;
inline constexpr size_t description_limit = size_t{256} << 10;

/**
 * The entries of signatures: "update.json.p7s", and "update.json.2.p7s" to "update.json.8.p7s". Each has a file
 * of its own, since other tools require all signers in one file to be trusted.
 */
std::string signature_name(size_t index);
bool is_signature_name(const std::string& name);

/** The entry with the block map of an image. */
struct MapEntry {
    std::string file;
    std::string sha256;

    bool operator==(const MapEntry&) const = default;
};

/** One partition and the image for it. */
struct Image {
    std::string name; /* without a slot suffix */
    std::string file; /* entry of the package */
    ota_medium_e medium;
    ota_part_type_e type;
    Digests digests; /* sha256 may be empty */
    std::optional<uint64_t> size;
    bool has_version; /* carries an anti-rollback version */
    std::optional<MapEntry> blocks;

    [[nodiscard]] bool is_ab() const {
        return type == AB;
    }
    /**
     * Whether all of it is checked before anything is written: its partition exists once, so a damaged image would cost
     * the only copy, or it has a version that is compared with the board's.
     */
    [[nodiscard]] bool is_checked_first() const {
        return has_version || !is_ab();
    }
    /** SHA-256 where it is given: MD5, much slower and weaker, adds nothing to it. */
    [[nodiscard]] Digester::Kind strongest_digest() const {
        return digests.sha256.empty() ? Digester::Kind::md5 : Digester::Kind::sha256;
    }
    [[nodiscard]] Digester::Kind all_digests() const {
        return digests.sha256.empty() ? Digester::Kind::md5 : Digester::Kind::both;
    }
    /** Compares every digest that was found; one of the kinds above has to be among them. */
    [[nodiscard]] bool matches(const Digests& found) const;
};

struct Description {
    std::string version;
    std::vector<std::string> boards; /* that it is for; empty if it names none */
    std::vector<Image> images;
    int32_t sec_up_flag;
    int32_t nosec_up_flag;
};

/** Whether that is so for any image of this file. */
bool is_checked_first(const Description& description, const std::string& file);

/** The files of the images, each once, as they are in a package: first those that are checked first. */
std::vector<std::string> files_in_order(const Description& description);

/**
 * @param draft  digests and sizes may be missing, as they are before packing
 */
Description parse_description(const Json& json, bool draft = false);

#endif

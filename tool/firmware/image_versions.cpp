// SPDX-License-Identifier: Apache-2.0
#include "firmware/image_versions.h"

#include "board/scratch.h"
#include "console/console.h"
#include "console/text.h"
#include "format/verified_boot.h"

#include <algorithm>
#include <array>
#include <fstream>

namespace {

uint64_t read_rollback_index(const std::string& path) {
    std::ifstream image(path, std::ios::binary);
    std::array<uint8_t, verified_boot_head_size> head{};
    image.read(reinterpret_cast<char*>(head.data()), head.size());
    uint64_t index = 0;
    const auto length = static_cast<size_t>(image.gcount());
    switch (decode_verified_boot({head.data(), length}, &index).state) {
    case format_state::valid:
        return index;
    case format_state::torn:
        throw Failure(ExitCode::refused, path + " ends before its rollback index");
    default:
        throw Failure(ExitCode::refused, path + " is not a verified-boot image");
    }
}

/** The kind of firmware an image is; nullopt if it is not described as versioned, or is not firmware. */
std::optional<FirmwareKind> versioned_kind(const Image& image) {
    return image.has_version ? firmware_kind_of(image.name) : std::nullopt;
}

/** The library reads a firmware package whole into memory. */
void demand_parsable(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::file_size(path, ignored) > firmware_limit && !ignored) {
        throw Failure(ExitCode::refused, path + " is larger than " + human_bytes(firmware_limit));
    }
}

/** Images are unpacked one at a time, so the largest decides. */
void demand_room(const Package& package, const Description& description, const ScratchDirectory& scratch) {
    uint64_t need = 0;
    for (const Image& image : description.images) {
        need = versioned_kind(image) ? std::max(need, package.at(image.file).size) : need;
    }
    std::string path = scratch.path();
    const uint64_t room = get_free_space(path.data());
    if (room != UINT64_MAX && need > room) {
        throw Failure(ExitCode::failed,
                      "reading versions needs " + human_bytes(need) + ", but the file system of " + path +
                          " has only " + human_bytes(room) + " free",
                      "set TMPDIR to a directory with more space");
    }
}

/** Replaces the path of a temporary copy, which the user does not know, by the image's name. */
std::string without_path(std::string sentence, const std::string& path, const std::string& name) {
    for (size_t at = 0; !path.empty() && (at = sentence.find(path, at)) != std::string::npos; at += name.size()) {
        sentence.replace(at, path.size(), name);
    }
    return sentence;
}

void unpack(const Package& package, const Image& image, const ScratchDirectory& scratch) {
    require(ExitCode::refused, "cannot unpack " + image.file,
            [&] { return vx_uncompress_one(package.path().c_str(), scratch.path().c_str(), image.file.c_str()); });
}

void remove_unpacked(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

ImageVersion read_one(const Package& package, const Image& image, FirmwareKind kind, const ScratchDirectory& scratch) {
    ImageVersion result{image.name, kind, std::nullopt, {}};
    const std::string unpacked = scratch.path() + "/" + image.file;
    try {
        unpack(package, image, scratch);
        read_image_version(kind, unpacked, image.file, result);
    } catch (const Failure& failure) {
        result.problem = failure.what();
    }
    remove_unpacked(unpacked);
    return result;
}

/** Images of a file are unpacked for this, those of a pipe are in memory. */
ImageVersion read_one(const ImageSource& source, const Image& image, FirmwareKind kind,
                      const ScratchDirectory* scratch) {
    ImageVersion result{image.name, kind, std::nullopt, {}};
    if (kind == FirmwareKind::vbmeta && image.medium != OTA_EMMC) {
        result.problem = "the version of a verified-boot image can be checked on eMMC only";
        return result;
    }
    if (scratch != nullptr) {
        return read_one(*source.file(), image, kind, *scratch);
    }
    read_image_version(kind, source.path_of(image), image.file, result);
    return result;
}

std::string disagreement(const ImageVersion& image, const firmware_versions& before) {
    return format("%s has version %llu, but an earlier verified-boot image has %u", image.partition.c_str(),
                  static_cast<unsigned long long>(*image.version), before.vbmeta.value_or(0));
}

/** An image that the package does not have counts as version 0. */
std::string lower_than(const char* what, bool is_there, uint32_t version, const char* which, uint32_t counter) {
    if (!is_there) {
        return format("the package has no %s version, but the board's %s counter is %u", what, which, counter);
    }
    return format("the package's %s version %u is below the board's %s counter %u", what, version, which, counter);
}

std::string in_words(const antirollback_verdict& verdict, const firmware_versions& versions,
                     const std::optional<Counters>& counters) {
    switch (verdict.reason) {
    case antirollback_reason::kinds_differ:
        return format("the versions of uboot (%u) and vbmeta (%u) differ", versions.uboot.value_or(0),
                      versions.vbmeta.value_or(0));
    case antirollback_reason::secure_below:
        return lower_than("miniboot", versions.miniboot.has_value(), verdict.secure, "secure", counters->secure);
    case antirollback_reason::non_secure_below:
        return lower_than("uboot and vbmeta", versions.uboot || versions.vbmeta, verdict.non_secure, "non-secure",
                          counters->non_secure);
    case antirollback_reason::none:
        break;
    }
    return {};
}

} // namespace

const char* firmware_name(FirmwareKind kind) {
    static constexpr std::array names = {"miniboot", "uboot", "vbmeta"};
    return names[static_cast<size_t>(kind)];
}

uint64_t read_image_version(FirmwareKind kind, const std::string& path) {
    if (kind == FirmwareKind::vbmeta) {
        return read_rollback_index(path);
    }
    demand_parsable(path);
    const uint32_t layout = kind == FirmwareKind::miniboot ? SEC_MINIBOOT_IMG : NOSEC_UBOOT_IMG;
    uint32_t version = 0;
    require(ExitCode::refused, path + " has no version",
            [&] { return vx_fip_img_anti_read(path.c_str(), layout, &version); });
    return version;
}

void read_image_version(FirmwareKind kind, const std::string& path, const std::string& name, ImageVersion& result) {
    try {
        result.version = read_image_version(kind, path);
    } catch (const Failure& failure) {
        result.problem = without_path(failure.what(), path, name);
    }
}

std::vector<ImageVersion> read_image_versions(const ImageSource& source, const Description& description) {
    std::optional<ScratchDirectory> scratch;
    if (source.file() != nullptr) {
        demand_room(*source.file(), description, scratch.emplace());
    }
    std::vector<ImageVersion> versions;
    for (const Image& image : description.images) {
        if (const auto kind = versioned_kind(image)) {
            versions.push_back(read_one(source, image, *kind, scratch ? &*scratch : nullptr));
        }
    }
    return versions;
}

Counters read_counters() {
    antirollback_ver_t record{};
    require(ExitCode::device, "cannot read the anti-rollback counters",
            [&] { return get_efuse_antirollback(&record); });
    return {record.sec_ver, record.nosec_ver};
}

VersionCheck compare_versions(const std::vector<ImageVersion>& images, const std::optional<Counters>& counters) {
    firmware_versions versions;
    for (const ImageVersion& image : images) {
        if (!image.version) {
            return {{}, image.partition + ": " + image.problem};
        }
        if (!add_firmware_version(&versions, image.kind, *image.version)) {
            return {{}, disagreement(image, versions)};
        }
    }
    const antirollback_verdict verdict = check_firmware_versions(versions, counters);
    return {verdict, in_words(verdict, versions, counters)};
}

std::optional<antirollback_ver_t> check_versions(const ImageSource& source, const Description& description) {
    const std::vector<ImageVersion> versions = read_image_versions(source, description);
    const VersionCheck check = compare_versions(versions, read_counters());
    if (!check.refusal.empty()) {
        throw Failure(ExitCode::refused, check.refusal);
    }
    if (versions.empty()) {
        return std::nullopt;
    }
    antirollback_ver_t record{};
    record.sec_up_flag = static_cast<uint8_t>(description.sec_up_flag);
    record.nosec_up_flag = static_cast<uint8_t>(description.nosec_up_flag);
    record.sec_ver = check.verdict.secure;
    record.nosec_ver = check.verdict.non_secure;
    return record;
}

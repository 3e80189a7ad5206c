#include "image_versions.h"

#include "console.h"
#include "partition.h"
#include "scratch.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <endian.h>
#include <fstream>

namespace {

constexpr std::array kinds = {FirmwareKind::miniboot, FirmwareKind::uboot, FirmwareKind::vbmeta};

/* The head of a verified-boot image: magic, then the top byte of the required version. */
constexpr std::string_view vbmeta_head("AVB0\0", 5);
constexpr std::streamoff rollback_index_offset = 112;

uint32_t read_rollback_index(const std::string& path) {
    std::ifstream image(path, std::ios::binary);
    std::array<char, vbmeta_head.size()> head{};
    image.read(head.data(), head.size());
    if (!image || std::string_view(head.data(), head.size()) != vbmeta_head) {
        throw Failure(ExitCode::refused, path + " is no verified-boot image");
    }
    uint64_t index = 0;
    image.seekg(rollback_index_offset);
    image.read(reinterpret_cast<char*>(&index), sizeof index);
    if (!image) {
        throw Failure(ExitCode::refused, path + " ends before its rollback index");
    }
    return static_cast<uint32_t>(be64toh(index));
}

/** Images are unpacked one at a time, so the largest decides. */
void demand_room(const Package& package, const Description& description, const ScratchDirectory& scratch) {
    uint64_t need = 0;
    for (const Image& image : description.images) {
        need = image.has_version ? std::max(need, package.at(image.file).size) : need;
    }
    std::string path = scratch.path();
    const uint64_t room = get_free_space(path.data());
    if (room != UINT64_MAX && need > room) {
        throw Failure(ExitCode::failed,
                      "reading versions takes " + human_bytes(need) + ", and the file system of " + path + " has " +
                          human_bytes(room),
                      "name a roomier directory in TMPDIR");
    }
}

ImageVersion read_one(const Package& package, const Image& image, FirmwareKind kind, const ScratchDirectory& scratch) {
    ImageVersion result{image.name, kind, std::nullopt, {}};
    const std::string unpacked = scratch.path() + "/" + image.file;
    try {
        require(ExitCode::refused, "cannot unpack " + image.file,
                [&] { return vx_uncompress_one(package.path().c_str(), scratch.path().c_str(), image.file.c_str()); });
        result.version = read_image_version(kind, unpacked);
    } catch (const Failure& failure) {
        result.problem = failure.what();
        if (const size_t at = result.problem.find(unpacked); at != std::string::npos) {
            result.problem.replace(at, unpacked.size(), image.file);
        }
    }
    std::error_code ignored;
    std::filesystem::remove(unpacked, ignored);
    return result;
}

/** The version of the last image of a kind, as the library counts; 0 without one. */
uint32_t last_version(const std::vector<ImageVersion>& versions, FirmwareKind kind) {
    uint32_t last = 0;
    for (const ImageVersion& image : versions) {
        last = image.kind == kind ? image.version.value_or(0) : last;
    }
    return last;
}

/** An image that the package does not have counts as version 0. */
std::string lower_than(const char* what, uint32_t version, const char* which, uint32_t counter) {
    if (version == 0) {
        return format("the package shows no %s version, and the board's %s counter is %u", what, which, counter);
    }
    return format("the package's %s version %u is below the board's %s counter %u", what, version, which, counter);
}

} // namespace

std::optional<FirmwareKind> firmware_kind(std::string_view name) {
    for (const FirmwareKind kind : kinds) {
        if (name.find(firmware_name(kind)) != std::string_view::npos) {
            return kind;
        }
    }
    return std::nullopt;
}

const char* firmware_name(FirmwareKind kind) {
    static constexpr std::array names = {"miniboot", "uboot", "vbmeta"};
    return names[static_cast<size_t>(kind)];
}

uint32_t read_image_version(FirmwareKind kind, const std::string& path) {
    if (kind == FirmwareKind::vbmeta) {
        return read_rollback_index(path);
    }
    const uint32_t layout = kind == FirmwareKind::miniboot ? SEC_MINIBOOT_IMG : NOSEC_UBOOT_IMG;
    uint32_t version = 0;
    require(ExitCode::refused, path + " shows no version",
            [&] { return vx_fip_img_anti_read(path.c_str(), layout, &version); });
    return version;
}

std::vector<ImageVersion> read_image_versions(const Package& package, const Description& description) {
    const ScratchDirectory scratch;
    demand_room(package, description, scratch);
    std::vector<ImageVersion> versions;
    for (const Image& image : description.images) {
        const auto kind = firmware_kind(image.name);
        if (image.has_version && kind) {
            versions.push_back(read_one(package, image, *kind, scratch));
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

std::string refusal_by_versions(const std::vector<ImageVersion>& versions, const Counters& counters) {
    for (const ImageVersion& image : versions) {
        if (!image.version) {
            return image.partition + ": " + image.problem;
        }
    }
    const uint32_t secure = last_version(versions, FirmwareKind::miniboot);
    const uint32_t uboot = last_version(versions, FirmwareKind::uboot);
    const uint32_t vbmeta = last_version(versions, FirmwareKind::vbmeta);
    if (uboot != vbmeta) {
        return format("the versions of uboot (%u) and vbmeta (%u) differ", uboot, vbmeta);
    }
    if (secure < counters.secure) {
        return lower_than("miniboot", secure, "secure", counters.secure);
    }
    if (uboot < counters.non_secure) {
        return lower_than("uboot and vbmeta", uboot, "non-secure", counters.non_secure);
    }
    return {};
}

void judge_versions(const Package& package, const Description& description) {
    const std::string refusal = refusal_by_versions(read_image_versions(package, description), read_counters());
    if (!refusal.empty()) {
        throw Failure(ExitCode::refused, refusal);
    }
}

void verify_versions(const Package& package, const Description& description) {
    judge_versions(package, description); /* it has the better words */
    const ScratchDirectory scratch;
    update_info_t info = to_update_info(description);
    require(ExitCode::refused, "the package does not pass the anti-rollback check",
            [&] { return verify_antirollback_version(&info, package.path().c_str(), scratch.path().c_str()); });
    sync_partition("ubootenv");
}

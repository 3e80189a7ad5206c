// SPDX-License-Identifier: Apache-2.0
#include "firmware/certificates.h"

#include "board/small_file.h"
#include "console/failure.h"
#include "format/certificate.h"
#include "format/firmware_package.h"

#include <cstring>
#include <filesystem>
#include <openssl/err.h>
#include <span>

namespace {

using Bytes = std::span<const uint8_t>;

std::string read_file(const std::string& path) {
    std::error_code error;
    if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) {
        throw Failure(ExitCode::failed, path + " is not a regular file");
    }
    return read_small_file(path, firmware_limit);
}

/** The image with this UUID in one package; nullopt if it is missing or out of bounds. */
std::optional<Bytes> find_image(Bytes package, const uuid_t& uuid) {
    firmware_walk walk{package};
    for (fip_toc_entry_t entry; next_firmware_entry(&walk, &entry);) {
        if (std::memcmp(&entry.uuid, &uuid, sizeof uuid) != 0) {
            continue;
        }
        const bool is_inside = check_firmware_place(entry, package.size()) == firmware_place::inside;
        return is_inside ? std::optional(package.subspan(entry.offset_address, entry.size)) : std::nullopt;
    }
    return std::nullopt;
}

Certificate read_certificate(const toc_entry_t& row, Bytes der) {
    Certificate result{row.name, row.cmdline_name, std::nullopt, {}};
    const certificate_version found = read_certificate_version(der);
    ERR_clear_error();
    if (found.counter.state == format_state::valid) {
        result.version = found.version;
    } else if (found.certificate.state != format_state::valid) {
        result.problem = found.certificate.reason;
    } else if (found.counter.state != format_state::absent) {
        result.problem = found.counter.reason;
    }
    return result;
}

std::vector<Bytes> packages_in(FirmwareKind kind, Bytes file) {
    if (kind == FirmwareKind::vbmeta || check_firmware_package(file).state != format_state::valid) {
        return {};
    }
    if (kind == FirmwareKind::uboot) {
        return {file};
    }
    if (file.size() < firmware_pair_size) {
        return {};
    }
    return {file.first(firmware_first_size), file.subspan(firmware_first_size, firmware_second_size)};
}

} // namespace

std::vector<Certificate> list_certificates(FirmwareKind kind, const std::string& path) {
    const std::string file = read_file(path);
    const std::vector<Bytes> packages = packages_in(kind, {reinterpret_cast<const uint8_t*>(file.data()), file.size()});
    std::vector<Certificate> certificates;
    for (const toc_entry_t* row = toc_entries; row->cmdline_name != nullptr; ++row) {
        for (const Bytes package : packages) {
            if (const auto der = find_image(package, row->uuid)) {
                certificates.push_back(read_certificate(*row, *der));
            }
        }
    }
    return certificates;
}

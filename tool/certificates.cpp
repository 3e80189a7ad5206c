#include "certificates.h"

#include "failure.h"
#include "openssl_handle.h"
#include "small_file.h"
#include "velox_ota_hl.h"

#include <cstring>
#include <filesystem>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <span>

namespace {

/* A package: a header, then entries of which the last has a UUID of zeros; integers are little-endian. */
constexpr size_t header_size = 16;
constexpr size_t entry_size = 40;
constexpr size_t offset_at = 16;
constexpr size_t length_at = 24;

/* A miniboot file holds two packages. */
constexpr size_t first_size = 0x40000;
constexpr size_t second_size = 0x200000;

using Bytes = std::span<const uint8_t>;

std::string read_file(const std::string& path) {
    std::error_code error;
    if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) {
        throw Failure(ExitCode::failed, path + " is not a regular file");
    }
    return read_small_file(path, firmware_limit);
}

uint64_t load_64(Bytes bytes) {
    uint64_t value = 0;
    for (size_t i = 8; i > 0; --i) {
        value = value << 8 | bytes[i - 1];
    }
    return value;
}

/** The image with this UUID in one package; nothing when it is not there or lies outside. */
std::optional<Bytes> find_image(Bytes package, const uuid_t& uuid) {
    static constexpr uuid_t end{};
    for (size_t at = header_size; at + entry_size <= package.size(); at += entry_size) {
        const Bytes entry = package.subspan(at, entry_size);
        if (std::memcmp(entry.data(), &end, sizeof end) == 0) {
            break;
        }
        if (std::memcmp(entry.data(), &uuid, sizeof uuid) != 0) {
            continue;
        }
        const uint64_t offset = load_64(entry.subspan(offset_at));
        const uint64_t length = load_64(entry.subspan(length_at));
        if (offset > package.size() || length > package.size() - offset) {
            return std::nullopt;
        }
        return package.subspan(offset, length);
    }
    return std::nullopt;
}

bool is_counter(const X509_EXTENSION* extension) {
    char oid[80] = {};
    (void)OBJ_obj2txt(oid, sizeof oid, X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension)), 0);
    return std::strcmp(oid, "1.3.6.1.4.1.4128.2100.1") == 0 || std::strcmp(oid, "1.3.6.1.4.1.4128.2100.2") == 0;
}

/** Fills in the version of the first counter extension, or why it shows none. */
void read_version(const X509* certificate, Certificate& result) {
    for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
        X509_EXTENSION* extension = X509_get_ext(certificate, i);
        if (!is_counter(extension)) {
            continue;
        }
        const ASN1_OCTET_STRING* octets = X509_EXTENSION_get_data(extension);
        const unsigned char* data = ASN1_STRING_get0_data(octets);
        const Asn1Integer number(d2i_ASN1_INTEGER(nullptr, &data, ASN1_STRING_length(octets)));
        if (number == nullptr) {
            result.problem = "its counter is no integer";
        } else {
            result.version = static_cast<uint32_t>(ASN1_INTEGER_get(number.get()));
        }
        return;
    }
}

Certificate read_certificate(const toc_entry_t& row, Bytes der) {
    Certificate result{row.name, row.cmdline_name, std::nullopt, {}};
    const unsigned char* data = der.data();
    const X509Certificate certificate(d2i_X509(nullptr, &data, static_cast<long>(der.size())));
    if (certificate == nullptr) {
        result.problem = "no certificate";
    } else {
        read_version(certificate.get(), result);
    }
    ERR_clear_error();
    return result;
}

std::vector<Bytes> packages_in(FirmwareKind kind, Bytes file) {
    if (kind == FirmwareKind::vbmeta) {
        return {};
    }
    if (kind == FirmwareKind::uboot) {
        return {file};
    }
    if (file.size() < first_size + second_size) {
        return {};
    }
    return {file.first(first_size), file.subspan(first_size, second_size)};
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

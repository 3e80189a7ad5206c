// SPDX-License-Identifier: Apache-2.0
/**
 * Firmware Image Packages and the certificates in them. A package is bytes from outside: every size and
 * offset is checked before it is used.
 */
#include "fip_prase.h"

#include "antirollback_verdict.h"
#include "certificate.h"
#include "firmware_package.h"
#include "ota_log.h"
#include "ota_owner.h"

#include <cstring>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <sys/stat.h>

const toc_entry_t toc_entries[10] = {
    {"SoC Firmware key certificate",
     {{0x8a, 0xb8, 0xbe, 0xcc}, {0xf9, 0x60}, {0xe4, 0x11}, 0x9a, 0xd0, {0xeb, 0x48, 0x22, 0xd8, 0xdc, 0xf8}},
     "soc-fw-key-cert"},
    {"Trusted OS Firmware key certificate",
     {{0x94, 0x77, 0xd6, 0x03}, {0xfb, 0x60}, {0xe4, 0x11}, 0x85, 0xdd, {0xb7, 0x10, 0x5b, 0x8c, 0xee, 0x04}},
     "tos-fw-key-cert"},
    {"Non-Trusted Firmware key certificate",
     {{0x8a, 0xd5, 0x83, 0x2a}, {0xfb, 0x60}, {0xe4, 0x11}, 0x8a, 0xaf, {0xdf, 0x30, 0xbb, 0xc4, 0x98, 0x59}},
     "nt-fw-key-cert"},
    {"BL2 DDR Firmware key certificate",
     {{0xdc, 0x0e, 0x51, 0x0f}, {0x7e, 0xce}, {0x4a, 0xeb}, 0x92, 0xb5, {0x04, 0xfc, 0x1b, 0x96, 0xde, 0x14}},
     "ddr-fw-key-cert"},
    {"Trusted Boot Firmware BL2 certificate",
     {{0xd6, 0xe2, 0x69, 0xea}, {0x5d, 0x63}, {0xe4, 0x11}, 0x8d, 0x8c, {0x9f, 0xba, 0xbe, 0x99, 0x56, 0xa5}},
     "tb-fw-cert"},
    {"SoC Firmware content certificate",
     {{0xe2, 0xb2, 0x0c, 0x20}, {0x5e, 0x63}, {0xe4, 0x11}, 0x9c, 0xe8, {0xab, 0xcc, 0xf9, 0x2b, 0xb6, 0x66}},
     "soc-fw-cert"},
    {"Trusted OS Firmware content certificate",
     {{0xa4, 0x9f, 0x44, 0x11}, {0x5e, 0x63}, {0xe4, 0x11}, 0x87, 0x28, {0x3f, 0x05, 0x72, 0x2a, 0xf3, 0x3d}},
     "tos-fw-cert"},
    {"Non-Trusted Firmware content certificate",
     {{0x8e, 0xc4, 0xc1, 0xf3}, {0x5d, 0x63}, {0xe4, 0x11}, 0xa7, 0xa9, {0x87, 0xee, 0x40, 0xb2, 0x3f, 0xa7}},
     "nt-fw-cert"},
    {"BL2 DDR Firmware content certificate",
     {{0x98, 0x5c, 0x54, 0x96}, {0x91, 0x7e}, {0x4e, 0x83}, 0x96, 0x70, {0x2b, 0xe9, 0x43, 0xbf, 0xed, 0x49}},
     "ddr-fw-cert"},
    {nullptr, {}, nullptr},
};

namespace {

constexpr uint32_t no_version = version_without_certificates; /* no certificate has set a version yet */

struct image_t {
    fip_toc_entry_t toc_e;
    void* buffer; /* the image's bytes, owned, toc_e.size long */
};

/* The action for an image. Reading leaves all at DO_UNSPEC. */
enum { DO_UNSPEC = 0, DO_PACK = 1, DO_UNPACK = 2, DO_REMOVE = 3 };

/** Describes one row of toc_entries and holds at most one image. Owns everything it points to. */
struct image_desc_t {
    uuid_t uuid;
    char* name;
    char* cmdline_name;
    int action;
    char* action_arg;
    image_t* image; /* null until an entry with this UUID has been copied */
    image_desc_t* next;
};

/* One list per process, in the order of toc_entries; empty between two reads. */
image_desc_t* image_desc_head;
size_t nr_image_descs;

/* ---- memory ---- */

void* xmalloc(size_t size, const char* msg) {
    void* const block = std::malloc(size);
    if (block == nullptr) {
        ota_log_error("malloc: %s\n", msg);
    }
    return block;
}

void* xzalloc(size_t size, const char* msg) {
    void* const block = xmalloc(size, msg);
    return block == nullptr ? nullptr : std::memset(block, 0, size);
}

char* xstrdup(const char* s, const char* msg) {
    char* const copy = strdup(s);
    if (copy == nullptr) {
        ota_log_error("strdup: %s\n", msg);
    }
    return copy;
}

/* ---- descriptors ---- */

bool uuid_match(const uuid_t* uuid1, const uuid_t* uuid2) {
    return std::memcmp(uuid1, uuid2, sizeof *uuid1) == 0;
}

void free_image(image_t* image) {
    if (image != nullptr) {
        std::free(image->buffer);
        std::free(image);
    }
}

void free_image_desc(image_desc_t* desc) {
    std::free(desc->name);
    std::free(desc->cmdline_name);
    std::free(desc->action_arg);
    free_image(desc->image);
    std::free(desc);
}

image_desc_t* new_image_desc(const uuid_t* uuid, const char* name, const char* cmdline_name) {
    auto* desc =
        static_cast<image_desc_t*>(xzalloc(sizeof(image_desc_t), "failed to allocate memory for image descriptor"));
    if (desc == nullptr) {
        return nullptr;
    }
    desc->uuid = *uuid;
    desc->action = DO_UNSPEC;
    desc->name = xstrdup(name, "failed to allocate memory for image name");
    if (desc->name != nullptr) {
        desc->cmdline_name = xstrdup(cmdline_name, "failed to allocate memory for image command line name");
    }
    if (desc->cmdline_name == nullptr) {
        free_image_desc(desc);
        return nullptr;
    }
    return desc;
}

void add_image_desc(image_desc_t* desc) {
    image_desc_t** tail = &image_desc_head;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = desc;
    ++nr_image_descs;
}

bool fill_image_descs() {
    for (const toc_entry_t* row = toc_entries; row->cmdline_name != nullptr; ++row) {
        image_desc_t* desc = new_image_desc(&row->uuid, row->name, row->cmdline_name);
        if (desc == nullptr) {
            return false;
        }
        add_image_desc(desc);
    }
    return true;
}

void free_image_descs() {
    while (image_desc_head != nullptr) {
        image_desc_t* const next = image_desc_head->next;
        free_image_desc(image_desc_head);
        image_desc_head = next;
        --nr_image_descs;
    }
}

image_desc_t* lookup_image_desc_from_uuid(const uuid_t* uuid) {
    for (image_desc_t* desc = image_desc_head; desc != nullptr; desc = desc->next) {
        if (uuid_match(&desc->uuid, uuid)) {
            return desc;
        }
    }
    return nullptr;
}

/** Empties the list at the end of a read, on every path. */
struct image_desc_list {
    image_desc_list() = default;
    image_desc_list(const image_desc_list&) = delete;
    image_desc_list& operator=(const image_desc_list&) = delete;
    ~image_desc_list() {
        free_image_descs();
    }
};

/* ---- packages ---- */

/** Loads a whole file and checks that it begins like a package. */
int open_fip(const char* filename, ota_memory<uint8_t>* buffer_out, size_t* fip_size) {
    ota_stream fip(std::fopen(filename, "rb"));
    if (fip == nullptr) {
        ota_log_error("fopen %s failed\n", filename);
        return -1;
    }
    struct stat status {};
    if (fstat(fileno(fip.get()), &status) != 0) {
        ota_log_error("fstat %s failed\n", filename);
        return -1;
    }
    const auto size = static_cast<size_t>(status.st_size);
    ota_memory<uint8_t> buffer(static_cast<uint8_t*>(xmalloc(size, "failed to load file into memory")));
    if (buffer == nullptr) {
        return -1;
    }
    if (std::fread(buffer.get(), 1, size, fip.get()) != size) {
        ota_log_error("Failed to read %s\n", filename);
        return -1;
    }
    fip.reset();
    const format_answer answer = check_firmware_package({buffer.get(), size});
    if (answer.state == format_state::torn) {
        ota_log_error("FIP %s is truncated\n", filename);
        return -1;
    }
    if (answer.state != format_state::valid) {
        ota_log_error("%s is not a FIP file\n", filename);
        return -1;
    }
    *buffer_out = std::move(buffer);
    *fip_size = size;
    return 0;
}

enum class copy_result { copied, corrupted, no_memory };

/** Copies the image of `entry` out of the package and attaches it to its descriptor. */
copy_result copy_image(const uint8_t* package, size_t fip_size, const fip_toc_entry_t& entry, image_desc_t* desc) {
    ota_memory<image_t> image(static_cast<image_t*>(xzalloc(sizeof(image_t), "failed to allocate memory for image")));
    if (image == nullptr) {
        return copy_result::no_memory;
    }
    /* Allocated before the checks, so that a size beyond all memory is reported as such. */
    ota_memory<void> buffer(xmalloc(entry.size, "failed to allocate image buffer, is FIP file corrupted?"));
    if (buffer == nullptr) {
        return copy_result::no_memory;
    }
    const firmware_place place = check_firmware_place(entry, fip_size);
    if (place != firmware_place::inside) {
        ota_log_error("%s is corrupted\n", place == firmware_place::wraps ? "FIP" : "FI");
        return copy_result::corrupted;
    }
    if (desc->image != nullptr) { /* a known image a second time */
        ota_log_error("FIP is corrupted\n");
        return copy_result::corrupted;
    }
    std::memcpy(buffer.get(), package + entry.offset_address, entry.size);
    image->toc_e = entry;
    image->buffer = buffer.release();
    desc->image = image.release();
    return copy_result::copied;
}

/** Walks one package of `fip_size` bytes. */
int parse_fip(const uint8_t* package, size_t fip_size) {
    firmware_walk walk{{package, fip_size}};
    fip_toc_entry_t entry;
    while (next_firmware_entry(&walk, &entry)) {
        image_desc_t* const desc = lookup_image_desc_from_uuid(&entry.uuid);
        if (desc == nullptr) {
            continue;
        }
        switch (copy_image(package, fip_size, entry, desc)) {
        case copy_result::copied:
            break;
        case copy_result::corrupted:
            return -1;
        case copy_result::no_memory:
            return 0; /* the walk stops as at a terminator, and the images so far stay */
        }
    }
    if (!walk.is_terminated) {
        ota_log_error("FIP does not have a ToC terminator entry\n");
    }
    return 0;
}

/** Walks the packages of a file in the layout of its type. */
int parse_image_file(const uint8_t* file, size_t size, uint32_t img_type) {
    if (img_type == NOSEC_UBOOT_IMG) {
        return parse_fip(file, size);
    }
    if (img_type != SEC_MINIBOOT_IMG) {
        ota_log_error("error image type: %d\n", img_type);
        return -1;
    }
    if (size < firmware_pair_size) {
        ota_log_error("miniboot fip file is error size. %ld\n", static_cast<long>(size));
        return -1;
    }
    if (parse_fip(file, firmware_first_size) != 0) {
        return -1;
    }
    return parse_fip(file + firmware_first_size, firmware_second_size);
}

/* ---- certificates ---- */

/**
 * Compares the certificate of `desc` with the version so far. A certificate without a version counts as
 * having `local_ver`, the version of the one before it.
 */
int32_t check_certificate(const image_desc_t* desc, uint32_t* local_ver, uint32_t* ab_ver) {
    const char* name = desc->cmdline_name;
    const certificate_version found =
        read_certificate_version({static_cast<const uint8_t*>(desc->image->buffer), desc->image->toc_e.size});
    if (found.certificate.state != format_state::valid) {
        ota_log_error("cert DER decode failed\n");
        ERR_print_errors_fp(stderr);
        ota_log_error("invalid cert, %s\n", name);
        return -1;
    }
    if (found.counter.state == format_state::torn) {
        ota_log_error("ASN1_INTEGER decode failed\n");
    }
    if (found.counter.state == format_state::valid) {
        *local_ver = found.version;
    }
    if (*ab_ver == no_version) {
        *ab_ver = *local_ver;
    } else if (*ab_ver != *local_ver) {
        ota_log_error("%s antirollback version is %d, but other version is %d\n", name, *local_ver, *ab_ver);
        return -1;
    }
    return 0;
}

int32_t check_certificates(uint32_t* ab_ver) {
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    *ab_ver = no_version;
    uint32_t local_ver = 0;
    for (const image_desc_t* desc = image_desc_head; desc != nullptr; desc = desc->next) {
        if (desc->image != nullptr && check_certificate(desc, &local_ver, ab_ver) != 0) {
            return -1;
        }
    }
    return 0;
}

} // namespace

int32_t vx_fip_img_anti_read(const char* img_path, uint32_t img_type, uint32_t* ab_ver) {
    if (img_path == nullptr || ab_ver == nullptr) {
        ota_log_error("invalid params, %s, %d\n", __func__, __LINE__);
        return -1;
    }
    const image_desc_list list;
    if (!fill_image_descs()) {
        return -1;
    }
    ota_memory<uint8_t> file;
    size_t size = 0;
    if (open_fip(img_path, &file, &size) != 0 || parse_image_file(file.get(), size, img_type) != 0) {
        return -1;
    }
    file.reset(); /* the images are separate copies */
    ERR_set_mark();
    const int32_t ret = check_certificates(ab_ver);
    ERR_pop_to_mark(); /* the caller's errors stay, unless they were printed with a certificate's */
    return ret;
}

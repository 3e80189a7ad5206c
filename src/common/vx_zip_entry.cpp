#include "vx_zip_entry.h"

#include "ota_log.h"
#include "ota_owner.h"

#include <algorithm>
#include <cstring>
#include <zlib.h>

namespace {

constexpr uint32_t size_in_zip64 = 0xFFFFFFFF; /* "see the zip64 extra field" */
constexpr unsigned zip64_header = 0x0001;
constexpr uint64_t file_type_mask = 0xF0000000; /* of the Unix mode */
constexpr uint64_t file_type_link = 0xA0000000;

/** What is after the last separator of a name. */
char* last_component(char* name) {
    char* last = name;
    for (char* p = name; *p != '\0'; ++p) {
        if (*p == '/' || *p == '\\') {
            last = p + 1;
        }
    }
    return last;
}

uint64_t load_le(const uint8_t* p, size_t bytes) {
    uint64_t value = 0;
    for (size_t i = bytes; i > 0; --i) {
        value = value << 8 | p[i - 1];
    }
    return value;
}

/** The uncompressed size in the zip64 record of an extra field; `otherwise` without one. */
uint64_t zip64_size(const uint8_t* extra, size_t length, uint64_t otherwise) {
    for (size_t at = 0; length - at >= 4;) {
        const uint64_t header = load_le(extra + at, 2);
        const uint64_t size = load_le(extra + at + 2, 2);
        at += 4;
        if (size > length - at) {
            break;
        }
        if (header == zip64_header && size >= 8) {
            return load_le(extra + at, 8); /* the uncompressed size comes first where it is present */
        }
        at += size;
    }
    return otherwise;
}

} // namespace

int32_t zip_entry_read_info(unzFile uf, zip_entry* entry) {
    std::memset(entry->name, 0, sizeof entry->name);
    const int32_t err =
        unzGetCurrentFileInfo64(uf, &entry->info, entry->name, sizeof entry->name, nullptr, 0, nullptr, 0);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGetCurrentFileInfo\n", err);
        return err;
    }
    entry->name[sizeof entry->name - 1] = '\0'; /* minizip leaves a longer name without one */
    entry->without_path = last_component(entry->name);
    return 0;
}

zip_kind zip_entry_kind(const zip_entry& entry) {
    if (*entry.without_path == '\0') {
        return zip_kind::directory;
    }
    return (entry.info.external_fa & file_type_mask) == file_type_link ? zip_kind::link : zip_kind::file;
}

zip_walk zip_walk_begin(unzFile uf) {
    unz_global_info64 gi{};
    const int32_t err = unzGetGlobalInfo64(uf, &gi);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGetGlobalInfo \n", err);
        return {uf, 0, 0, zip_walk_state::unreadable};
    }
    return {uf, gi.number_entry, 0, zip_walk_state::under_way};
}

bool zip_walk_next(zip_walk* walk, zip_entry* entry) {
    if (walk->state != zip_walk_state::under_way) {
        return false;
    }
    if (walk->visited == walk->count) {
        walk->state = zip_walk_state::at_end;
        return false;
    }
    const int32_t err = walk->visited == 0 ? UNZ_OK : unzGoToNextFile(walk->uf);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGoToNextFile\n", err);
        walk->state = zip_walk_state::stuck;
        return false;
    }
    ++walk->visited;
    if (zip_entry_read_info(walk->uf, entry) != 0) {
        walk->state = zip_walk_state::unreadable;
        return false;
    }
    return true;
}

bool zip_entry_size(unzFile uf, const unz_file_info64& info, uint64_t* size) {
    *size = info.uncompressed_size;
    const size_t length = info.size_file_extra;
    if (info.uncompressed_size != size_in_zip64 || length == 0) {
        return true;
    }
    const ota_memory<uint8_t> extra(static_cast<uint8_t*>(std::calloc(length, 1))); /* at most 64 KiB */
    if (extra == nullptr) {
        ota_log_error("no memory for an extra field of %zu bytes\n", length);
        return false;
    }
    unz_file_info64 again;
    if (unzGetCurrentFileInfo64(uf, &again, nullptr, 0, extra.get(), length, nullptr, 0) == UNZ_OK) {
        *size = zip64_size(extra.get(), length, info.uncompressed_size);
    }
    return true;
}

bool zip_entry_is_deliverable(uint64_t size, const unz_file_info64& info) {
    return info.uncompressed_size != size_in_zip64 || size <= size_in_zip64;
}

zip_entry_data zip_entry_begin(unzFile uf, uint64_t size, const unz_file_info64& info) {
    return {uf, size, info.uncompressed_size == size_in_zip64, 0};
}

int32_t zip_entry_read(zip_entry_data* data, void* buf, uint32_t size) {
    const auto wanted = data->in_zip64 ? static_cast<uint32_t>(std::min<uint64_t>(size, data->left)) : size;
    const int32_t length = unzReadCurrentFile(data->uf, buf, wanted);
    if (length < 0) {
        return length;
    }
    if (length == 0 && data->left != 0) {
        return UNZ_BADZIPFILE;
    }
    data->left -= std::min<uint64_t>(data->left, static_cast<uint32_t>(length));
    if (data->in_zip64) {
        data->crc = static_cast<uint32_t>(crc32(data->crc, static_cast<const Bytef*>(buf), static_cast<uInt>(length)));
    }
    return length;
}

int32_t zip_entry_end(const zip_entry_data& data, const unz_file_info64& info) {
    const int32_t err = unzCloseCurrentFile(data.uf);
    const bool is_checked = data.in_zip64 && data.left == 0;
    return err == UNZ_OK && is_checked && data.crc != info.crc ? UNZ_CRCERROR : err;
}

// SPDX-License-Identifier: Apache-2.0
#include "vx_zip_entry.h"

#include "ota_log.h"
#include "ota_owner.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <zlib.h>

ota_package zip_open_package(const char* src) {
    ota_package uf(unzOpen64(src));
    if (uf == nullptr) {
        ota_log_error("Cannot open %s or %s.zip\n", src, src);
    }
    return uf;
}

int32_t zip_entry_read_info(unzFile uf, zip_entry* entry) {
    std::memset(entry->name, 0, sizeof entry->name);
    const int32_t err =
        unzGetCurrentFileInfo64(uf, &entry->info, entry->name, sizeof entry->name, nullptr, 0, nullptr, 0);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGetCurrentFileInfo\n", err);
        return err;
    }
    entry->name[sizeof entry->name - 1] = '\0'; /* minizip does not terminate a longer name */
    return 0;
}

zip_kind zip_entry_kind(const zip_entry& entry) {
    return zip_kind_of(entry.name, entry.info.external_fa);
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
    if (info.uncompressed_size != zip_wide32 || length == 0) {
        return true;
    }
    const ota_memory<uint8_t> extra(static_cast<uint8_t*>(std::calloc(length, 1))); /* at most 64 KiB */
    if (extra == nullptr) {
        ota_log_error("no memory for an extra field of %zu bytes\n", length);
        return false;
    }
    unz_file_info64 again;
    if (unzGetCurrentFileInfo64(uf, &again, nullptr, 0, extra.get(), length, nullptr, 0) == UNZ_OK) {
        (void)decode_zip64_size({extra.get(), length}, size); /* without one the entry's own size stays */
    }
    return true;
}

bool zip_entry_deliverable_size(unzFile uf, const unz_file_info64& info, const char* name, uint64_t* size) {
    if (!zip_entry_size(uf, info, size)) {
        return false;
    }
    if (info.uncompressed_size == zip_wide32 && *size > zip_wide32) {
        ota_log_error("entry %s of %llu bytes is too large to be read\n", name, static_cast<unsigned long long>(*size));
        return false;
    }
    return true;
}

zip_entry_data zip_entry_begin(unzFile uf, uint64_t size, const unz_file_info64& info) {
    return {uf, size, info.uncompressed_size == zip_wide32, 0};
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

// SPDX-License-Identifier: Apache-2.0
/** The entries of a package as minizip reports them: a walk over them, their kinds, sizes and data. */
#ifndef VX_ZIP_ENTRY_H
#define VX_ZIP_ENTRY_H

#include "minizip_owner.h"
#include "ota_paths.h"
#include "zip_entry.h"

#include <cstdint>

/** Opens a package. Null on failure, which has been logged. */
ota_package zip_open_package(const char* src);

/** An entry of a package. A name of ota_entry_size bytes or more is truncated; info.size_filename is its length. */
struct zip_entry {
    unz_file_info64 info;
    char name[ota_entry_size];
};

/**
 * Reads the name and the attributes of the current entry.
 * @return 0; a minizip code on failure, which has been logged
 */
int32_t zip_entry_read_info(unzFile uf, zip_entry* entry);

zip_kind zip_entry_kind(const zip_entry& entry);

/** The state of a walk over the entries of a package. */
enum class zip_walk_state {
    under_way,
    at_end,     /* every entry was visited */
    unreadable, /* the number of entries, or an entry, cannot be read */
    stuck,      /* the package has fewer entries than it claims */
};

/** The entries of a package, in package order. */
struct zip_walk {
    unzFile uf;
    uint64_t count;
    uint64_t visited;
    zip_walk_state state;
};

/** Begins a walk over an opened package. Failures are logged, here and in zip_walk_next(). */
zip_walk zip_walk_begin(unzFile uf);

/** Moves to the next entry and reads it. @return false where the walk ends; its state gives the reason */
bool zip_walk_next(zip_walk* walk, zip_entry* entry);

/**
 * The uncompressed size of the current entry of `uf`. A minizip that does not read zip64 sizes reports
 * 0xFFFFFFFF for every entry packed with them; the true size then comes from the entry's extra field.
 * @param info  of that entry, from unzGetCurrentFileInfo64()
 * @param size  out: the size; 0xFFFFFFFF where the package has no other
 * @return false when out of memory for the extra field, which has been logged: the size is unknown
 */
bool zip_entry_size(unzFile uf, const unz_file_info64& info, uint64_t* size);

/**
 * The same for an entry that is to be read to its end: false also when minizip cannot deliver all of it, which
 * has been logged. A larger entry that it reports as 0xFFFFFFFF bytes would end there as if it were complete.
 */
bool zip_entry_deliverable_size(unzFile uf, const unz_file_info64& info, const char* name, uint64_t* size);

/** An opened entry that is read to its end, never past its true size. */
struct zip_entry_data {
    unzFile uf;
    uint64_t left; /* bytes still to come */
    bool in_zip64; /* minizip knows neither where it ends nor whether its checksum is right */
    uint32_t crc;  /* of the bytes read so far, for an entry in_zip64 */
};

zip_entry_data zip_entry_begin(unzFile uf, uint64_t size, const unz_file_info64& info);

/**
 * Reads the next bytes.
 * @return their number, 0 at the end; a negative minizip code, UNZ_BADZIPFILE also for data that ends
 *         before the size that the package claims, which minizip treats as the end
 */
int32_t zip_entry_read(zip_entry_data* data, void* buf, uint32_t size);

/**
 * Ends reading.
 * @return 0; a negative minizip code, UNZ_CRCERROR for an entry that was read to its end and whose
 *         checksum differs
 */
int32_t zip_entry_end(const zip_entry_data& data, const unz_file_info64& info);

/**
 * Extracts the one entry named exactly `file_name`, as vx_uncompress_one() does, but only when it is a
 * regular file. The target of a link is not part of the package, and an extracted link or directory would
 * get in the way of later packages.
 */
int32_t zip_extract_regular_file(const char* src, const char* dest, const char* file_name);

#endif

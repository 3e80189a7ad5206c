/** The true size of a package entry, its kind and its data, for the units of the library. */
#ifndef VX_ZIP_ENTRY_H
#define VX_ZIP_ENTRY_H

#include <cstdint>
#include <minizip/unzip.h>

/**
 * The uncompressed size of the current entry of `uf`. A minizip that does not read zip64 sizes shows
 * 0xFFFFFFFF for every entry packed with them; the true size then comes from the entry's extra field
 * (header 0x0001 of the central directory, PKWARE APPNOTE 4.5.3).
 * @param info  of that entry, from unzGetCurrentFileInfo64()
 */
uint64_t zip_entry_size(unzFile uf, const unz_file_info64& info);

/**
 * Whether minizip can deliver the entry whole. One that it shows as 0xFFFFFFFF bytes and that is
 * larger would end there like a complete one.
 */
bool zip_entry_is_deliverable(uint64_t size, const unz_file_info64& info);

/**
 * Whether the entry `file_name` of the package `src` is a link or a directory. Extracted, it would stay in
 * the way of later packages; and what its name leads to would not be out of this one.
 */
bool zip_entry_is_no_file(const char* src, const char* file_name);

/** An opened entry that is read through, never past its true size. */
struct zip_entry_data {
    unzFile uf;
    uint64_t left; /* bytes still to come */
    bool in_zip64; /* minizip knows neither where it ends nor whether its checksum is right */
    uint32_t crc;  /* of an entry in_zip64, what came so far */
};

zip_entry_data zip_entry_begin(unzFile uf, uint64_t size, const unz_file_info64& info);

/**
 * Takes the next bytes.
 * @return their number, 0 at the end; a negative minizip code, UNZ_BADZIPFILE also for data that ends
 *         before the size that the package claims, which minizip takes for the end
 */
int32_t zip_entry_read(zip_entry_data* data, void* buf, uint32_t size);

/**
 * Ends reading.
 * @return 0; a negative minizip code, UNZ_CRCERROR for an entry that was read through and has another
 *         checksum
 */
int32_t zip_entry_end(const zip_entry_data& data, const unz_file_info64& info);

#endif

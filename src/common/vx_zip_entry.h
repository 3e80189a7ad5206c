/** The true size of a package entry, for every unit that reads packages. */
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

#endif

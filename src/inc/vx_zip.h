// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Zip packages: extraction, inventory and sizes, through minizip.
 */
#ifndef VX_ZIP_H
#define VX_ZIP_H

#include "ota_base.h"

/* minizip's header turns the plain file calls of every system header included after it into 64-bit ones, so the
 * functions that a program calls would depend on the order of its headers. */
#include <stdio.h>
#include <stdlib.h>
#ifndef __USE_FILE_OFFSET64
#define OTA_PLAIN_FILE_CALLS
#endif
#include <minizip/unzip.h>
#ifdef OTA_PLAIN_FILE_CALLS
#undef __USE_FILE_OFFSET64
#undef OTA_PLAIN_FILE_CALLS
#endif

OTA_BEGIN_DECLS

/**
 * Extracts all entries of a package under a directory, which is created if missing.
 *
 * A name that ends in a separator is a directory, an entry with the Unix file type 0xA a symbolic
 * link, everything else a regular file, which replaces an existing one, gets the entry's date and the
 * nine permission bits of its mode. An entry whose name leads out of `dest` is refused before
 * anything is touched for it (docs/security.md). An entry whose data ends before the size that the
 * package claims is an error. The working directory is `dest` during the call; the previous one is
 * remembered as a path of at most 127 bytes.
 * @return 0; -1 when the path of the working directory is longer, with nothing touched; -1 at the first
 *         entry that fails: what was extracted before stays, and the working directory is restored
 */
OTA_API int32_t vx_uncompress(const char* src, const char* dest);

/**
 * Extracts the one entry named exactly `file_name` to `dest`/`file_name`. The working directory is handled as
 * by vx_uncompress().
 * @return 0; -1 on failure: the working directory is then `dest`, if `dest` could be entered
 */
OTA_API int32_t vx_uncompress_one(const char* src, const char* dest, const char* file_name);

/**
 * Creates a directory with its parents, mode 0775 less the umask. A slash or a backslash separates names.
 * @return 0, even when it exists already or mkdir() failed for a reason other than a missing parent; -1
 *         for a null argument, an empty name, "/" alone, or a parent that could not be created; -104 when
 *         out of memory
 */
OTA_API int32_t makedir(const char* newdir);

/**
 * Sets access and modification time of a file from a local time.
 * @param dosdate   not read
 * @param tmu_date  tm_mon counts from 0; a tm_year above 1900 is a full year, any other is stored as is
 */
OTA_API void change_file_date(const char* filename, uLong dosdate, tm_unz tmu_date);

/**
 * Looks for an entry whose full name begins with `file_name`.
 * @return 1 found, 0 not found, -1 for a null argument or a package that cannot be read
 */
OTA_API int32_t vx_zip_has_file(const char* zipfile, char* file_name);

/**
 * The unpacked size of a package in bytes.
 * @param img_size  the sizes of the image entries (extension img, bin or ubifs) are added to this
 *                  value; the caller clears it
 * @return the sum over all entries; -1 for a null argument, a package that cannot be read or sizes
 *         beyond 63 bits: what had been added by then stays in `img_size`
 */
OTA_API int64_t vx_get_zip_size(const char* zipfile, uint64_t* img_size);

/**
 * Sums the image entries over all packages (regular files with the extension zip) in a directory.
 * @param path  must also be the working directory
 * @return bytes; -1 when the directory or a package cannot be read
 */
OTA_API int64_t vx_all_image_size(const char* path);

/**
 * The largest total of any package in a directory.
 * @param path  absolute; it is the working directory during the call
 * @return bytes; -1 when the path of the working directory is longer than 127 bytes; -1 on any other
 *         failure: the working directory may then be `path`
 */
OTA_API int64_t vx_get_max_zip_size(const char* path);

OTA_END_DECLS

#endif

// SPDX-License-Identifier: Apache-2.0
/**
 * Checks where the names of a package's entries lead: only into the destination.
 *
 * 1. The destination is the working directory, and its identity is device and inode. A name is followed
 *    one component at a time, as the kernel follows it, and never compared as text: text has limits
 *    that the kernel does not have, and some links do not lead where their text says.
 * 2. While a package is extracted nothing is removed or renamed, so what resolves stays where it is.
 * 3. A name that does not resolve reaches nothing, unless it would resolve once the parent directories of
 *    a file have been created: then it is refused.
 * 4. No other process changes the destination, or anything on a path out of it and back, in the meantime.
 *    There is no protection against that here.
 */
#ifndef VX_ZIP_DESTINATION_H
#define VX_ZIP_DESTINATION_H

#include "ota_owner.h"
#include "ota_paths.h"
#include "zip_entry.h"

#include <sys/types.h>

struct zip_destination {
    dev_t device = 0;
    ino_t inode = 0;
    char verified_dir[ota_entry_size] = {}; /* a parent directory that is known to be in the destination, */
    ota_descriptor verified{-1};            /* open: most entries share theirs with the entry before */
};

/**
 * Stores the path of the working directory, which a call changes and has to restore.
 * @return false when it is longer than 127 bytes or has been removed, which has been logged
 */
bool zip_save_working_directory(char (&dir_path)[ota_path_size]);

/** Makes the working directory the destination. @return false when it cannot be identified */
bool zip_destination_begin(zip_destination* dest);

/**
 * Whether creating the entry would reach outside the destination. A file is also followed through a link
 * in the last component of its name, even to a target that does not exist yet; a directory or a link entry
 * does not replace what is there. A name that leads nowhere does not lead out.
 */
bool zip_name_leads_out(zip_destination* dest, const char* name, zip_kind kind);

#endif

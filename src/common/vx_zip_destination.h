/**
 * What a package may reach: the names of its entries, judged against the destination.
 *
 * 1. The destination is the working directory, and its identity is device and inode. Paths are followed
 *    by the kernel and never compared as text: a text has limits that the kernel does not have, and
 *    links exist whose text is not where they lead.
 * 2. While a package is extracted nothing is removed or renamed, so what resolves stays where it is.
 * 3. What does not resolve yet may resolve once directories are made. A regular file below a link that
 *    leads nowhere is therefore refused, since directories are made for it.
 * 4. Nobody else changes the destination meanwhile, nor what lies on a road out of it and back. Nothing here
 *    protects against that.
 */
#ifndef VX_ZIP_DESTINATION_H
#define VX_ZIP_DESTINATION_H

#include "ota_paths.h"

#include <sys/types.h>

struct zip_destination {
    dev_t device;
    ino_t inode;
    char verified_dir[ota_entry_size]; /* a parent directory that exists in the destination */
};

enum class zip_kind { directory, link, file };

/** Takes the working directory for the destination. */
bool zip_destination_begin(zip_destination* dest);

/**
 * Whether making the entry would reach outside: its name is absolute, has a ".." component or a parent
 * outside, or is that of a file and belongs to a link that points outside.
 */
bool zip_name_leads_out(zip_destination* dest, const char* name, zip_kind kind);

/**
 * Whether writing to `name`, or setting its mode, would reach outside through links in its last
 * component, also one whose target does not exist yet. The parents are those of a judged name.
 */
bool zip_link_leads_out(const zip_destination& dest, const char* name);

#endif

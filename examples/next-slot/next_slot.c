// SPDX-License-Identifier: Apache-2.0
/* The minimum sequence from a package to the next boot slot. It takes no lock, does not check the package and does not
 * read back what it wrote; `tessera install` does. */
#include <stdio.h>
#include <unistd.h>
#include <velox_ota_hl.h>

int main(void) {
    char kept[128];
    ota_file_info_t target = {.medium = (ota_medium_e)get_boot_medium()};
    const int slot = ota_get_update_slot();
    if (get_part_device_name("system", kept, target.path, AB) != 0)
        return 1;
    if (ota_set_slot_unbootable(slot) != 0)
        return 1; /* a half-written slot is never booted */
    sync();
    if (vx_uncompress_file_to("update.zip", "system.img", &target, NULL) != 0)
        return 1;
    sync();
    printf("%llu bytes are on %s\n", (unsigned long long)target.offset, target.path);
    if (ota_set_next_expected_slot(slot) != 0)
        return 1;
    sync(); /* the library leaves this to its caller */
    return 0;
}

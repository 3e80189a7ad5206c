/* A C program beside the library: the header is C11, and every exported name is declared and linked. */
#include <velox_ota_hl.h>

#include <stdio.h>
#include <string.h>

_Static_assert(sizeof(bootloader_control) == 32 && sizeof(ota_status_t) == 1356, "stored records");
_Static_assert(sizeof(ota_file_info_t) == 152 && sizeof(fimage_update_t) == 2272, "records of the interface");
_Static_assert(sizeof(ota_err_e) == 4 && OTAERR_UPDATE_STATUS == 20, "enumerations");

static void (*const functions[])(void) = {
#define EXPORTED(name) (void (*)(void)) name,
#include "functions.h"
};

int main(void) {
    unsigned char digest[16];
    char line[] = "board_V1.2 x", version[128];
    md5_state_t state;
    md5_init(&state);
    md5_append(&state, (const unsigned char*)"abc", 3);
    md5_finish(&state, digest);
    if (CRC32((const uint8_t*)"123456789", 9) != 0xCBF43926 || memcmp(digest, "\x90\x01\x50\x98", 4) != 0 ||
        parse_version_info(line, version) != 4 || strcmp(version, "V1.2") != 0 ||
        ota_file_to_buf(NULL, version, 1) != -1) {
        return 1;
    }
    size_t data = sizeof buffer_md5file + sizeof buffer_md5dev + sizeof toc_entries / sizeof *toc_entries;
    printf("%zu functions, data %zu %d\n", sizeof functions / sizeof *functions, data, (int)g_ota_owner);
    return 0;
}

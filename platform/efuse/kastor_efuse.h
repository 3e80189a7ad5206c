// SPDX-License-Identifier: Apache-2.0
/**
 * The board's two anti-rollback counters. On a board they are eFuses; this library keeps them in a
 * small text file and is as strict as fuses: a counter never goes down.
 *
 * The environment variable TESSERA_EFUSE_FILE names the file; the default is
 * "/var/lib/tessera/efuse". Without a file both counters are 0. It holds two lines:
 *
 *   sec 3
 *   nosec 5
 *
 * Any other content is an error and never read as 0. All functions return 0 on success and a
 * negated errno number on failure.
 */
#ifndef KASTOR_EFUSE_H
#define KASTOR_EFUSE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KASTOR_EFUSE_API __attribute__((visibility("default")))

/** Reads the secure counter. @return 0; negative on failure: `version` is then unchanged. */
KASTOR_EFUSE_API int32_t kastor_efuse_sec_anti_read(uint32_t* version);

/** Reads the non-secure counter. @return as kastor_efuse_sec_anti_read() */
KASTOR_EFUSE_API int32_t kastor_efuse_nosec_anti_read(uint32_t* version);

/**
 * Raises the secure counter to `version`; its current value is accepted.
 * @return 0 when the medium holds the value; -EPERM when it is below the counter; negative on failure
 */
KASTOR_EFUSE_API int32_t kastor_efuse_sec_anti_write(uint32_t version);

/** Raises the non-secure counter. @return as kastor_efuse_sec_anti_write() */
KASTOR_EFUSE_API int32_t kastor_efuse_nosec_anti_write(uint32_t version);

#undef KASTOR_EFUSE_API

#ifdef __cplusplus
}
#endif

#endif

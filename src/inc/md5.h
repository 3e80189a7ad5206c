// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * MD5 message digest (RFC 1321) of memory, files and devices. A digest is 16 raw bytes.
 */
#ifndef MD5_H
#define MD5_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/** A byte of a message or a digest. */
typedef unsigned char md5_byte_t;
/** 32 bits of the state. */
typedef unsigned int md5_word_t;

/** A digest in progress; for md5_init(), md5_append() and md5_finish() only. */
typedef struct md5_state_s {
    md5_word_t count[2]; /**< message length so far in bits, low word first */
    md5_word_t abcd[4];  /**< chaining words */
    md5_byte_t buf[64];  /**< bytes of a block that is not yet full */
} md5_state_t;

/** Read buffer of MD5File(), shared by all calls. */
extern OTA_API unsigned char buffer_md5file[1048576];
/** Read buffer of MD5Dev() and MD5DevPart(), shared by all calls. */
extern OTA_API unsigned char buffer_md5dev[1048576];

/* No pointer may be null, except in the three operations on files, which then return -1. */

/** Begins a message. */
OTA_API void md5_init(md5_state_t* pms);

/** Adds `nbytes` bytes to the message; 0 or less does nothing. */
OTA_API void md5_append(md5_state_t* pms, const md5_byte_t* data, int nbytes);

/** Ends the message and writes its digest of 16 bytes. The state needs a new md5_init() afterwards. */
OTA_API void md5_finish(md5_state_t* pms, md5_byte_t* digest);

/** Digest of a whole file. @return 0; -1 when it cannot be opened. A read error ends the digest early. */
OTA_API int MD5File(const char* filename, md5_byte_t* digest);

/**
 * Digest of a file or device without its last `garbage` bytes. The size of a block or character device
 * comes from the device itself (BLKGETSIZE64, MEMGETINFO, which reaches 4 GiB, or the volume's used
 * bytes), that of anything else from fstat(), so a directory or a pipe gives the digest of the empty
 * message. NAND is read raw, bad blocks included: the same image on two devices gives different digests
 * when their bad blocks differ.
 * @return 0; -1 when it cannot be opened, or is a device that reports no size or ends before its size minus
 *         `garbage`. In a file, an early end or a read error ends the digest there.
 */
OTA_API int MD5Dev(const char* filename, md5_byte_t* digest, int32_t garbage);

/**
 * Digest of `checklen` bytes from `offset`, or of fewer when the file ends early. NAND is read raw.
 * @param offset    a negative value is ignored: the digest starts at byte 0
 * @param checklen  0 or less gives the digest of the empty message
 * @return 0; -1 when it cannot be opened
 */
OTA_API int MD5DevPart(const char* filename, long int offset, long int checklen, md5_byte_t* digest);

OTA_END_DECLS

#endif

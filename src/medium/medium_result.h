// SPDX-License-Identifier: Apache-2.0
/** The result of an operation on a medium, as a value: the callers write the messages. */
#ifndef MEDIUM_RESULT_H
#define MEDIUM_RESULT_H

#include <cstdint>

/** The step at which an operation failed. */
enum class medium_step {
    none, /* it succeeded */
    open,
    identify, /* neither a request nor fstat() identifies it */
    size,     /* the device reports none */
    memory,
    good_blocks, /* MTD: fewer than needed */
    read,
    end, /* of the data, before all of it was read */
    sync,
    prepare, /* UBI: direct writes are not allowed */
    erase,
    write,
};

struct [[nodiscard]] medium_result {
    medium_step failed = medium_step::none;
    int error = 0;      /* errno value; 0 where the device reported none */
    uint64_t place = 0; /* of a read, an erase or a write: raw byte of the device */

    [[nodiscard]] bool is_ok() const {
        return failed == medium_step::none;
    }
};

#endif

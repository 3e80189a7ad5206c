/** How an operation on a medium ended, as a value: whoever asked for it finds the words. */
#ifndef MEDIUM_RESULT_H
#define MEDIUM_RESULT_H

#include <cstdint>

/** The step at which an operation failed. */
enum class medium_step {
    none, /* it succeeded */
    open,
    identify, /* neither a request nor fstat() says what it is */
    size,     /* a device that reports none */
    memory,
    good_blocks, /* MTD: fewer of them than are needed */
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
    uint64_t place = 0; /* of a read: raw byte of the device; of a repair: number of the LEB */

    [[nodiscard]] bool is_ok() const {
        return failed == medium_step::none;
    }
};

#endif

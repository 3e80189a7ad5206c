// SPDX-License-Identifier: Apache-2.0
/** Devices as the kernel presents them: the rules of its MTD and UBI character devices over the cells. */
#ifndef FLASH_DEVICE_H
#define FLASH_DEVICE_H

#include "flash_cells.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>

/** An operation on a device, as it is counted for faults and recorded in the journal. */
struct flash_operation {
    const char* kind;
    std::optional<uint64_t> position = std::nullopt; /* bytes; the number of a LEB in LEB requests */
    uint64_t length = 0;                             /* bytes, where they are part of the request */
};

/** An ioctl that a device supports, ready to be carried out. */
struct flash_request {
    unsigned long number;
    void* argument;
    bool writable; /* the descriptor is open for writing */
};

/** Every result is that of a system call, with a negated errno for a failure. */
class flash_device {
public:
    flash_device() = default;
    flash_device(const flash_device&) = delete;
    flash_device& operator=(const flash_device&) = delete;
    virtual ~flash_device() = default;

    [[nodiscard]] virtual bool is(dev_t device, ino_t inode) const = 0;
    [[nodiscard]] virtual ssize_t read(uint64_t offset, std::span<uint8_t> out) = 0;
    [[nodiscard]] virtual ssize_t write(uint64_t offset, std::span<const uint8_t> data) = 0;
    /** @return nullopt for a request that the device does not support */
    [[nodiscard]] virtual std::optional<flash_operation> describe(const flash_request& request) const = 0;
    [[nodiscard]] virtual int carry_out(const flash_request& request) = 0;
    /** Puts everything written and acknowledged on the medium. */
    [[nodiscard]] virtual int sync() {
        return 0;
    }
    /** Whether something acknowledged has not reached the medium for certain. */
    [[nodiscard]] virtual bool has_unsynced() const {
        return false;
    }
    /** Sets whether the power fails from now on within each operation that changes the medium. */
    virtual void set_tear(power_tear tear) = 0;
    /** Data held only by the kernel or a cache is lost or has reached the medium after all: `seed` decides. */
    virtual void lose_power(uint64_t seed) = 0;
};

/* Each of these throws std::runtime_error with the reason when the device cannot be created. */

std::unique_ptr<flash_device> make_mtd_device(const std::string& path, const std::string& state_path,
                                              flash_geometry geometry);
std::unique_ptr<flash_device> make_ubi_volume(const std::string& path, const std::string& state_path,
                                              flash_geometry geometry);
std::unique_ptr<flash_device> make_block_device(const std::string& path, const std::string& state_path);

struct named_device {
    std::string name;
    std::unique_ptr<flash_device> device;
};

/** A number of a setup line or a fault script. Throws std::runtime_error for anything else. */
uint64_t parse_number(const std::string& text);

/** The device that a line of the setup describes (flash_sim.h). */
named_device make_device(const std::string& line);

#endif

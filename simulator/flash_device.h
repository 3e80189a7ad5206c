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

/** What a program asks of a device, as faults count it and the journal tells it. */
struct flash_operation {
    const char* kind;
    std::optional<uint64_t> position = std::nullopt; /* bytes; the number of a LEB in LEB requests */
    uint64_t length = 0;                             /* bytes, where they are part of the request */
};

/** An ioctl that a device knows, ready to be carried out. */
struct flash_request {
    unsigned long number;
    void* argument;
    bool writable; /* the descriptor is open for writing */
};

/** Every result is a system call's, with the negative errno for a failure. */
class flash_device {
public:
    flash_device() = default;
    flash_device(const flash_device&) = delete;
    flash_device& operator=(const flash_device&) = delete;
    virtual ~flash_device() = default;

    [[nodiscard]] virtual bool is(dev_t device, ino_t inode) const = 0;
    [[nodiscard]] virtual ssize_t read(uint64_t offset, std::span<uint8_t> out) = 0;
    [[nodiscard]] virtual ssize_t write(uint64_t offset, std::span<const uint8_t> data) = 0;
    /** @return nothing for a request that the device does not know */
    [[nodiscard]] virtual std::optional<flash_operation> describe(const flash_request& request) const = 0;
    [[nodiscard]] virtual int carry_out(const flash_request& request) = 0;
    /** What was written and acknowledged is now on the medium. */
    [[nodiscard]] virtual int sync() {
        return 0;
    }
    /** From now on the power fails within whatever changes the medium, or no longer does. */
    virtual void set_tear(power_tear tear) = 0;
    /** What only the kernel or a cache holds is gone, or reached the medium all the same: `seed` decides. */
    virtual void lose_power(uint64_t seed) = 0;
};

/* Each of these throws std::runtime_error with the reason when the device cannot be made. */

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

// SPDX-License-Identifier: Apache-2.0
/** Shared by MTD and UBI devices: they are built on cells and serve a table of requests. */
#ifndef FLASH_CELL_DEVICE_H
#define FLASH_CELL_DEVICE_H

#include "flash_cells.h"
#include "flash_device.h"

#include <algorithm>
#include <cerrno>

/** A request, the function that finds its position in its argument, and the one that carries it out. */
template <class Device>
struct request_row {
    unsigned long number;
    const char* kind;
    bool changes; /* needs a descriptor that is open for writing */
    void (*locate)(const void* argument, flash_operation& operation);
    int (Device::*carry_out)(void* argument);
};

template <class Argument>
const Argument& as(const void* argument) {
    return *static_cast<const Argument*>(argument);
}

inline void locate_nowhere(const void* /*argument*/, flash_operation& /*operation*/) {
}

template <class Device>
class cell_device : public flash_device {
public:
    cell_device(const std::string& path, const std::string& state_path, flash_geometry geometry)
        : cells_(path, state_path, std::move(geometry)) {
    }

    [[nodiscard]] bool is(dev_t device, ino_t inode) const override {
        return cells_.is(device, inode);
    }

    [[nodiscard]] std::optional<flash_operation> describe(const flash_request& request) const override {
        const request_row<Device>* const row = find(request.number);
        if (row == nullptr) {
            return std::nullopt;
        }
        flash_operation operation{row->kind};
        row->locate(request.argument, operation);
        return operation;
    }

    [[nodiscard]] int carry_out(const flash_request& request) override {
        const request_row<Device>* const row = find(request.number);
        if (row->changes && !request.writable) {
            return Device::read_only_error;
        }
        return (static_cast<Device*>(this)->*row->carry_out)(request.argument);
    }

    void set_tear(power_tear tear) override {
        cells_.set_tear(tear);
    }

protected:
    flash_cells cells_;

private:
    static const request_row<Device>* find(unsigned long number) {
        const auto* const row = std::ranges::find(Device::requests, number, &request_row<Device>::number);
        return row == std::ranges::end(Device::requests) ? nullptr : row;
    }
};

#endif

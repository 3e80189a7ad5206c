// SPDX-License-Identifier: Apache-2.0
/** The firmware on the board's partitions, read by the same rules as the images of a package. */
#ifndef TOOL_BOARD_FIRMWARE_H
#define TOOL_BOARD_FIRMWARE_H

#include "board/slot_block.h"
#include "firmware/image_versions.h"

#include <functional>
#include <optional>
#include <vector>

struct BoardFirmware {
    std::optional<int32_t> slot; /* nullopt for a partition that exists once */
    ImageVersion image;

    /** Whether the system in this slot boots with it. */
    [[nodiscard]] bool serves(int32_t number) const {
        return !slot || *slot == number;
    }
};

/**
 * Reads the version of every firmware partition whose kind is wanted. What a partition is follows from its name;
 * "ubootenv" holds no firmware. An image without certificates has no version here. Throws only if the
 * partitions cannot be listed; one that cannot be read has a problem instead of a version.
 * @param block  the board's slots: a suffix that is not one of them is part of the name of a partition that exists once
 */
std::vector<BoardFirmware> read_board_firmware(const SlotBlock& block, const std::function<bool(FirmwareKind)>& wanted);

#endif

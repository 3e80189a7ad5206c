// SPDX-License-Identifier: Apache-2.0
/** The whole slot block in "misc", for displaying it and for checking the effect of a change. */
#ifndef TOOL_SLOT_BLOCK_H
#define TOOL_SLOT_BLOCK_H

#include "console/failure.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct Slot {
    int32_t number;
    uint32_t priority;
    uint32_t tries;
    bool marked_good;
    bool corrupted;

    [[nodiscard]] bool is_bootable() const {
        return tries > 0 && !corrupted;
    }
    /** It is not booted, and a new try does not restore the mark of an earlier system. */
    [[nodiscard]] bool is_given_up() const {
        return tries == 0 && !marked_good;
    }
    [[nodiscard]] bool is_confirmed() const {
        return is_bootable() && marked_good;
    }
    /** "slot a" */
    [[nodiscard]] std::string name() const;
};

/** The block is missing or unreadable, as after a power cut; a new one must be written. */
struct LostBlock : Failure {
    using Failure::Failure;
};

struct SlotBlock {
    std::vector<Slot> slots;
    uint32_t stored_count; /* may exceed slots.size() in a damaged block */
    bool checksum_is_right;

    [[nodiscard]] const Slot* find(int32_t number) const;
    /** trial, confirmed, unbootable or corrupted; unknown if the checksum is wrong */
    [[nodiscard]] const char* state_of(const Slot& slot) const;
    [[nodiscard]] bool has_bootable_slot() const;
    /** Whether the priority of every other slot is lower. */
    [[nodiscard]] bool has_highest_priority(int32_t number) const;
    /**
     * Whether the slot is bootable and alone at the highest priority, as a switch leaves it. A slot that is
     * next by its tries or its mark only is no longer next once another one is marked good.
     */
    [[nodiscard]] bool is_sole_next(int32_t number) const;
    /** Whether a slot other than `number` is known to be good. */
    [[nodiscard]] bool is_confirmed_without(int32_t number) const;
};

/** Reads the block. Throws LostBlock, or Failure where there is no partition for it. */
SlotBlock read_slot_block();

/** Reads a valid block, for a change. Throws Failure if it is lost or its checksum is wrong. */
SlotBlock require_slot_block();

/** The same; nullopt if it is lost or its checksum is wrong. */
std::optional<SlotBlock> find_slot_block();

/** The running slot, if it is on trial: each further boot takes one of its tries. Null in the recovery system. */
const Slot* running_trial(const SlotBlock& block);

/** A remark for the user on that slot: the boots left, and how to keep it. */
std::string trial_remark(const Slot& slot);

/**
 * The slot that was tried and given up, if one was. It still has the highest priority, while another runs; one
 * that was marked bad by hand may look the same.
 */
const Slot* given_up_slot(const SlotBlock& block);

/** The slot that the bootloader boots next; nullopt if none is bootable. */
std::optional<int32_t> next_slot();

/** The running slot. Throws if the kernel command line does not name it. */
int32_t running_slot();

/** Makes a change of the block through the library, and waits until the medium holds it. */
void set_next_slot(int32_t slot);
void mark_slot_good(int32_t slot);
void mark_slot_unbootable(int32_t slot);

/** Makes the partition writable again after a power cut in a write. @return whether that was needed */
bool repair_slot_block();

/** Writes a new block, even if the old one cannot be read. */
void reset_slot_block();

#endif

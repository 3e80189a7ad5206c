/** The slot block in "misc" as a whole, for showing it and for judging what a change would leave. */
#ifndef TOOL_SLOT_BLOCK_H
#define TOOL_SLOT_BLOCK_H

#include "console/failure.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/** How many slots a new block has. */
inline constexpr int32_t new_block_slots = 2;

struct Slot {
    int32_t number;
    uint32_t priority;
    uint32_t tries;
    bool marked_good;
    bool corrupted;

    [[nodiscard]] bool is_bootable() const {
        return tries > 0 && !corrupted;
    }
    /** No attempt is made to boot it, and the mark of an earlier system does not come back with a try. */
    [[nodiscard]] bool is_given_up() const {
        return tries == 0 && !marked_good;
    }
    [[nodiscard]] bool is_confirmed() const {
        return is_bootable() && marked_good;
    }
    /** "slot a" */
    [[nodiscard]] std::string name() const;
};

/** There is no block, or it cannot be read, as after a power cut: a new one has to be written. */
struct LostBlock : Failure {
    using Failure::Failure;
};

struct SlotBlock {
    std::vector<Slot> slots;
    uint32_t stored_count; /* may be above the number of slots in a damaged block */
    bool checksum_is_right;

    [[nodiscard]] const Slot* find(int32_t number) const;
    /** trial, confirmed, unbootable or corrupted; of a block with a wrong checksum nothing is known */
    [[nodiscard]] const char* state_of(const Slot& slot) const;
    [[nodiscard]] bool has_bootable_slot() const;
    /** Whether the priority of every other slot is lower. */
    [[nodiscard]] bool has_highest_priority(int32_t number) const;
    /**
     * Whether the slot is bootable and alone at the highest priority, as a switch leaves it. A slot that is
     * next by its tries or its mark only is no longer next once another one is marked good.
     */
    [[nodiscard]] bool is_alone_in_front(int32_t number) const;
    /** Whether a slot other than `number` is known to be good. */
    [[nodiscard]] bool is_confirmed_without(int32_t number) const;
};

/** Reads the block. Throws LostBlock, or Failure where there is no partition for it. */
SlotBlock read_slot_block();

/** Reads a block that can be believed, for a change. Throws Failure where it is lost or its checksum is wrong. */
SlotBlock require_slot_block();

/** The same; nothing where it is lost or its checksum is wrong. */
std::optional<SlotBlock> find_slot_block();

/** The running slot, if it is on trial: each further boot takes one of its tries. Null in the recovery system. */
const Slot* running_trial(const SlotBlock& block);

/** What to know and do about that slot, for the user. */
std::string trial_remark(const Slot& slot);

/**
 * The slot that was tried and given up, if one was. It still has the highest priority, while another runs; one
 * that was marked bad by hand may look the same.
 */
const Slot* given_up_slot(const SlotBlock& block);

/** The slot that the bootloader takes next; nothing when it has none. */
std::optional<int32_t> next_slot();

/** The slot that runs. Throws when the kernel command line does not tell. */
int32_t running_slot();

/** Makes a change of the block through the library, and waits until the medium holds it. */
void set_next_slot(int32_t slot);
void mark_slot_good(int32_t slot);
void mark_slot_unbootable(int32_t slot);

/** Makes the partition writable again after a power cut in a write. @return whether that was needed */
bool repair_slot_block();

/** Writes a new block, also where the old one cannot be read. */
void reset_slot_block();

#endif

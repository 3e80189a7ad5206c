// SPDX-License-Identifier: Apache-2.0
#include "firmware/board_firmware.h"

#include "board/device.h"
#include "board/names.h"
#include "board/partition.h"
#include "board/small_file.h"
#include "board/status_record.h"
#include "console/failure.h"
#include "console/text.h"
#include "format/firmware_package.h"
#include "format/verified_boot.h"
#include "internal/ota_paths.h"

#include <algorithm>
#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t piece_size = size_t{256} << 10;

/** How many bytes of a partition are read. */
uint64_t bytes_to_read(FirmwareKind kind, uint64_t capacity) {
    const uint64_t most = kind == FirmwareKind::miniboot ? firmware_pair_size
                          : kind == FirmwareKind::vbmeta ? verified_boot_head_size
                                                         : firmware_limit;
    return std::min(most, capacity);
}

/** Copies the start of a device to a file in memory: the version readers need a file with a size. */
Descriptor copy_to_memory(const Device& device, uint64_t size) {
    Descriptor copy(memfd_create("tessera-firmware", MFD_CLOEXEC));
    if (copy.get() < 0) {
        throw Failure(ExitCode::failed, "cannot copy it to memory" + because(errno));
    }
    device.sync(); /* data only in the page cache does not boot */
    const auto lost = device.uncorrectable_reads();
    std::vector<uint8_t> piece(piece_size);
    for (uint64_t done = 0; done < size; done += piece.size()) {
        piece.resize(std::min<uint64_t>(piece_size, size - done));
        device.read(done, piece);
        write_all(copy.get(), piece, "cannot copy it to memory");
    }
    if (device.lost_reads_since(lost)) {
        throw Failure(ExitCode::device, "pages that its ECC cannot correct");
    }
    return copy;
}

ImageVersion read_partition(const std::string& name, FirmwareKind kind) {
    ImageVersion result{name, kind, std::nullopt, {}};
    try {
        const Device device(partition_path(name));
        const Descriptor copy = copy_to_memory(device, bytes_to_read(kind, device.capacity()));
        read_image_version(kind, "/proc/self/fd/" + std::to_string(copy.get()), name, result);
    } catch (const Failure& failure) {
        result.problem = "cannot read " + name + ": " + failure.what();
    }
    if (kind != FirmwareKind::vbmeta && result.version == version_without_certificates) {
        result.version.reset();
        result.problem = name + " contains no certificate with a version";
    }
    return result;
}

/** The slot that a name belongs to; nullopt for a partition that exists once. */
std::optional<int32_t> slot_of(const std::string& name, const SlotBlock& block) {
    for (const Slot& slot : block.slots) {
        if (name.ends_with("_" + slot_letter(slot.number))) {
            return slot.number;
        }
    }
    return std::nullopt;
}

} // namespace

std::vector<BoardFirmware> read_board_firmware(const SlotBlock& block,
                                               const std::function<bool(FirmwareKind)>& wanted) {
    std::vector<BoardFirmware> firmware;
    for (const std::string& name : list_partitions_by_name()) {
        const auto kind = name.starts_with(ota_ubootenv_partition) ? std::nullopt : firmware_kind_of(name);
        if (kind && wanted(*kind)) {
            firmware.push_back({slot_of(name, block), read_partition(name, *kind)});
        }
    }
    return firmware;
}

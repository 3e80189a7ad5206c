// SPDX-License-Identifier: Apache-2.0
/** tessera compare: whether two partitions hold the same bytes, and if not, where they first differ. */
#include "board/device.h"
#include "board/partition.h"
#include "console/interrupt.h"
#include "console/progress.h"
#include "console/text.h"
#include "verbs/verb.h"

#include <algorithm>

namespace {

constexpr size_t piece_size = size_t{1} << 20;

struct Options {
    std::string first;
    std::string second;
    uint64_t garbage = 0;
};

/** One of the two, without its last bytes and, on flash, without its bad blocks. */
struct Side {
    Device device;
    uint64_t length;

    Side(const std::string& name, uint64_t garbage) : device(file_or_partition(name)), length(device.capacity()) {
        if (length == 0 && device.kind() == DeviceKind::mtd) {
            throw Failure(ExitCode::device, name + " has no good block");
        }
        if (garbage > length) {
            throw Failure(ExitCode::failed, name + " has only " + human_bytes(length));
        }
        length -= garbage;
    }
};

/** The first byte that differs; the end of the shorter one when it is the beginning of the other. */
std::optional<uint64_t> first_difference(const Side& first, const Side& second, const std::string& names) {
    const uint64_t length = std::min(first.length, second.length);
    Progress progress(default_progress_mode());
    progress.expect("compare", length);
    progress.begin("compare", names);
    std::vector<uint8_t> buffers(2 * piece_size);
    for (uint64_t done = 0; done < length;) {
        stop_if_interrupted();
        const size_t count = std::min<uint64_t>(piece_size, length - done);
        const auto one = std::span(buffers).first(count);
        const auto other = std::span(buffers).subspan(piece_size, count);
        first.device.read(done, one);
        second.device.read(done, other);
        const auto [at, ignored] = std::mismatch(one.begin(), one.end(), other.begin());
        if (at != one.end()) {
            return done + static_cast<uint64_t>(at - one.begin());
        }
        done += count;
        progress.advance("compare", count);
    }
    progress.finish();
    return first.length == second.length ? std::nullopt : std::optional(length);
}

void compare(const Context& context, const Options& options) {
    watch_interrupts();
    const Side first(options.first, options.garbage);
    const Side second(options.second, options.garbage);
    const std::string names = options.first + " and " + options.second;
    const auto at = first_difference(first, second, names);
    if (!at) {
        context.show({{"equal", true}, {"bytes", first.length}},
                     names + " hold the same " + std::to_string(first.length) + " bytes");
        return;
    }
    if (context.json) {
        context.show({{"equal", false}, {"first_difference", *at}}, {});
    }
    const bool one_ends = *at == std::min(first.length, second.length);
    throw Failure(ExitCode::failed, one_ends
                                        ? names + format(" hold the same %llu bytes, then one of them ends",
                                                         static_cast<unsigned long long>(*at))
                                        : names + format(" differ at byte %llu", static_cast<unsigned long long>(*at)));
}

} // namespace

void declare_compare(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "PART_A", options->first, "Name of a partition, or file");
    add_word(verb, "PART_B", options->second, "Partition or file to compare it with");
    add_number(verb, "--garbage", options->garbage, "Leave out N bytes at the end of both");
    on_command(verb, context, [&context, options] { compare(context, *options); });
}

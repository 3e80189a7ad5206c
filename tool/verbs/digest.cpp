// SPDX-License-Identifier: Apache-2.0
/**
 * tessera digest: the digest of a file or partition. Bad blocks of NAND are skipped, as in
 * writing, so the digest of a partition equals that of the image written to it.
 */
#include "board/digest.h"
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
    std::string name;
    uint64_t offset = 0;
    std::optional<uint64_t> length;
    uint64_t garbage = 0;
    bool sha256 = false;
};

/** The bytes to digest: a stretch from `offset`, or all but the last `garbage`. */
uint64_t length_of(const Options& options, uint64_t size) {
    if (options.offset > size || options.garbage > size - options.offset) {
        throw Failure(ExitCode::failed, options.name + " has only " + human_bytes(size));
    }
    const uint64_t rest = size - options.offset - options.garbage;
    if (options.length.value_or(rest) > rest) {
        throw Failure(ExitCode::failed,
                      options.name + " ends " + human_bytes(*options.length - rest) + " before that length");
    }
    return options.length.value_or(rest);
}

Digests digest(const Device& device, const Options& options, uint64_t length) {
    Progress progress(default_progress_mode());
    progress.expect("digest", length);
    progress.begin("digest", options.name);
    Digester digester(options.sha256 ? Digester::Kind::both : Digester::Kind::md5);
    std::vector<uint8_t> buffer(piece_size);
    for (uint64_t done = 0; done < length;) {
        stop_if_interrupted();
        const auto piece = std::span(buffer).first(std::min<uint64_t>(piece_size, length - done));
        device.read(options.offset + done, piece);
        digester.add(piece);
        done += piece.size();
        progress.advance("digest", piece.size());
    }
    progress.finish();
    return digester.finish();
}

void show_digest(const Context& context, const Options& options) {
    watch_interrupts();
    const Device device(file_or_partition(options.name));
    const uint64_t length = length_of(options, device.capacity());
    const Digests digests = digest(device, options, length);
    Json value = {{"name", options.name}, {"offset", options.offset}, {"bytes", length}, {"md5", digests.md5}};
    if (options.sha256) {
        value["sha256"] = digests.sha256;
    }
    context.show(value, (options.sha256 ? digests.sha256 : digests.md5) + "  " + options.name);
}

} // namespace

void declare_digest(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "NAME", options->name, "File, or name of a partition");
    add_number(verb, "--offset", options->offset, "Start at byte N");
    Option* length = add_number(verb, "--length", options->length, "Digest N bytes");
    add_exclusion(add_number(verb, "--garbage", options->garbage, "Leave out N bytes at the end"), length);
    add_flag(verb, "--sha256", options->sha256, "SHA-256 instead of MD5");
    on_command(verb, context, [&context, options] { show_digest(context, *options); });
}

// SPDX-License-Identifier: Apache-2.0
#include "install/image_install.h"

#include "console/interrupt.h"
#include "install/frame_stream.h"
#include "install/read_back.h"
#include "install/target_writer.h"

#include <cstring>

namespace {

/** Carries what the writer and the reading back have done over to the progress. */
class ImageProgress {
public:
    ImageProgress(Progress& progress, const TargetWriter& writer, ReadBack& read_back)
        : progress_(progress), writer_(writer), read_back_(read_back) {
    }

    void update() {
        stop_if_interrupted();
        const uint64_t written = writer_.written();
        const uint64_t unchanged = writer_.stored() - written;
        const uint64_t verified = read_back_.done();
        progress_.store(written - written_, unchanged - unchanged_);
        progress_.advance("verify", verified - verified_);
        written_ = written;
        unchanged_ = unchanged;
        verified_ = verified;
    }

private:
    Progress& progress_;
    const TargetWriter& writer_;
    ReadBack& read_back_;
    uint64_t written_ = 0;
    uint64_t unchanged_ = 0;
    uint64_t verified_ = 0;
};

/** Where a wrong byte costs the only copy, each block is checked before it is written. */
bool needs_checked_blocks(const Target& target) {
    return !target.image.is_ab();
}

/** Determines whether the image or the device is at fault. */
Failure explain_difference(const Target& target, const Package& package) {
    Progress none(ProgressMode::none);
    if (!target.image.matches(digest_entry(package, target.image, target.image.strongest_digest(), none))) {
        return wrong_digest(target.image);
    }
    return {ExitCode::device, target.partition() + ": the data read back differs from the data written",
            "the device may be worn out"};
}

bool is_equal_up_to_the_end(const Target& target, FrameStream& frames, uint64_t& done, Progress& progress) {
    const Device& device = *target.opened;
    device.sync(); /* data left in the page cache by a killed run proves nothing */
    const auto lost = device.uncorrectable_reads();
    Digester digester(target.image.strongest_digest());
    std::vector<uint8_t> held;
    for (auto piece = frames.next(); !piece.empty(); piece = frames.next()) {
        held.resize(piece.size());
        device.read(done, held);
        done += piece.size();
        progress.advance("compare", piece.size());
        digester.add(held);
        if (std::memcmp(held.data(), piece.data(), piece.size()) != 0) {
            return false;
        }
    }
    if (!target.image.matches(digester.finish())) {
        throw wrong_digest(target.image);
    }
    return !device.lost_reads_since(lost);
}

} // namespace

void install_image(Target& target, const Package& package, bool compares, const std::function<void()>& before_write,
                   Progress& progress) {
    progress.begin("write", target.partition());
    const Device& device = *target.opened;
    device.sync(); /* data left in the page cache by a killed run proves nothing */
    const auto reader = open_image(package, target.image);
    TargetWriter writer(target, compares, before_write);
    ReadBack read_back(target.device, target.size, target.image.strongest_digest());
    ImageProgress done(progress, writer, read_back);
    const auto tick = [&] { done.update(); };
    {
        FrameStream frames(*reader, target.image.file, needs_checked_blocks(target));
        for (auto bytes = frames.next(); !bytes.empty(); bytes = frames.next()) {
            writer.add(bytes);
            read_back.follow(writer.stored(), tick);
            tick();
        }
        writer.finish();
    }
    progress.begin("sync", target.partition());
    device.sync();
    progress.begin("verify", target.partition());
    const Digests found = read_back.finish(tick);
    target.written = writer.written();
    target.is_installed = target.written == 0;
    if (!target.image.matches(found)) {
        throw explain_difference(target, package);
    }
    if (read_back.has_lost_reads()) {
        throw Failure(ExitCode::device, target.partition() + " has pages that its ECC cannot correct",
                      "the device may be worn out");
    }
}

bool holds_image(const Target& target, const Package& package, Progress& progress) {
    const auto reader = open_image(package, target.image);
    FrameStream frames(*reader, target.image.file, false);
    uint64_t compared = 0;
    bool is_equal = false;
    progress.begin("compare", target.partition());
    try {
        is_equal = is_equal_up_to_the_end(target, frames, compared, progress);
    } catch (const Failure& failure) {
        /* Flash that was never written may be unreadable; it still has to be written. */
        if (failure.code != ExitCode::device) {
            throw;
        }
    }
    progress.spare("compare", target.size - compared);
    return is_equal;
}

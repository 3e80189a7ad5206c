// SPDX-License-Identifier: Apache-2.0
#include "install/image_install.h"

#include "console/interrupt.h"
#include "install/frame_stream.h"
#include "install/read_back.h"
#include "install/target_writer.h"

#include <cstring>

namespace {

/** Reports what has been written and read back since the last update. */
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

/**
 * The bytes of an image. Where a wrong byte costs the only copy, each block is checked before it is returned. Of an
 * image that can be read only once each block is, and the digest at the end.
 */
class ImageBytes {
public:
    ImageBytes(const Image& image, ImageReader& reader, bool is_read_once)
        : image_(image), frames_(reader, image.file, is_read_once || !image.is_ab()) {
        if (is_read_once) {
            digester_.emplace(image.strongest_digest());
        }
    }

    /** @return like FrameStream::next(); not to be called after the end */
    std::span<const uint8_t> next() {
        const auto bytes = frames_.next();
        if (bytes.empty()) {
            check_end();
        } else if (digester_) {
            digester_->add(bytes);
        }
        return bytes;
    }

    /** Reads the rest of an image that can be read only once. */
    void finish() {
        while (digester_) {
            (void)next();
        }
    }

private:
    void check_end() {
        if (digester_ && !image_.matches(digester_->finish())) {
            throw wrong_digest(image_);
        }
        digester_.reset();
    }

    const Image& image_;
    FrameStream frames_;
    std::optional<Digester> digester_; /* until the end */
};

Failure worn_out(const Target& target, const char* problem) {
    return {ExitCode::device, target.partition() + problem + "; the device may be worn out"};
}

/** Determines whether the image or the device is at fault. */
Failure explain_difference(const Target& target, ImageSource& source) {
    Progress none(ProgressMode::none);
    const Image& image = target.image;
    if (!source.is_read_once(image) &&
        !image.matches(digest_image(*source.open(image), image, image.strongest_digest(), none))) {
        return wrong_digest(image);
    }
    return worn_out(target, ": the data read back differs from the data written");
}

/** What a killed run left only in the page cache proves nothing. */
void settle_page_cache(const Target& target) {
    target.opened->sync();
}

bool is_equal_up_to_the_end(const Target& target, ImageBytes& image, uint64_t& done, Progress& progress) {
    const Device& device = *target.opened;
    settle_page_cache(target);
    const auto lost = device.uncorrectable_reads();
    Digester digester(target.image.strongest_digest());
    std::vector<uint8_t> held;
    for (auto piece = image.next(); !piece.empty(); piece = image.next()) {
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

void install_image(Target& target, ImageSource& source, bool compares, const std::function<void()>& before_write,
                   Progress& progress) {
    progress.begin("write", target.partition());
    settle_page_cache(target);
    const auto reader = source.open(target.image);
    TargetWriter writer(target, compares, before_write);
    ReadBack read_back(target.device, target.size, target.image.strongest_digest());
    ImageProgress done(progress, writer, read_back);
    const auto tick = [&] { done.update(); };
    {
        ImageBytes image(target.image, *reader, source.is_read_once(target.image));
        for (auto bytes = image.next(); !bytes.empty(); bytes = image.next()) {
            writer.add(bytes);
            read_back.follow(writer.stored(), tick);
            tick();
        }
        writer.finish();
    }
    progress.begin("sync", target.partition());
    target.opened->sync();
    progress.begin("verify", target.partition());
    const Digests found = read_back.finish(tick);
    target.written = writer.written();
    target.is_installed = target.written == 0;
    if (!target.image.matches(found)) {
        throw explain_difference(target, source);
    }
    if (read_back.has_lost_reads()) {
        throw worn_out(target, " has pages that its ECC cannot correct");
    }
}

bool holds_image(const Target& target, ImageSource& source, Progress& progress) {
    const auto reader = source.open(target.image);
    ImageBytes image(target.image, *reader, source.is_read_once(target.image));
    uint64_t compared = 0;
    bool is_equal = false;
    progress.begin("compare", target.partition());
    try {
        is_equal = is_equal_up_to_the_end(target, image, compared, progress);
    } catch (const Failure& failure) {
        /* Flash that was never written may be unreadable; it still has to be written. */
        if (failure.code != ExitCode::device) {
            throw;
        }
    }
    image.finish();
    progress.spare("compare", target.size - compared);
    return is_equal;
}

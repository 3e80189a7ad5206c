// SPDX-License-Identifier: Apache-2.0
#include "package/image_reader.h"

#include <algorithm>

namespace {

/** An image without a map, unpacked by the reader itself. */
class PlainImage : public ImageReader {
public:
    PlainImage(const Package& package, const Entry& entry)
        : entry_(entry), source_(package.data_of(entry)), reader_(entry, source_) {
    }

    [[nodiscard]] uint64_t size() const override {
        return entry_.size;
    }
    bool next(PackedFrame& frame) override {
        if (offset_ == entry_.size) {
            return false;
        }
        frame.packing = PackedFrame::Packing::plain;
        frame.offset = offset_;
        frame.size = static_cast<uint32_t>(std::min<uint64_t>(block_map_frame_size, entry_.size - offset_));
        frame.bytes.resize(frame.size);
        frame.hashes.clear();
        offset_ += reader_.read(frame.bytes);
        return true;
    }
    [[nodiscard]] bool has_hashes() const override {
        return false;
    }

private:
    const Entry& entry_;
    FileSource source_;
    EntryReader reader_;
    uint64_t offset_ = 0;
};

} // namespace

std::unique_ptr<ImageReader> open_image(const Package& package, const Image& image) {
    return std::make_unique<PlainImage>(package, package.at(image.file));
}

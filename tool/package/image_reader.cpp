// SPDX-License-Identifier: Apache-2.0
#include "package/image_reader.h"

#include "console/text.h"

#include <algorithm>
#include <new>

namespace {

uint32_t frame_size_at(uint64_t offset, uint64_t image_size) {
    return static_cast<uint32_t>(std::min<uint64_t>(block_map_frame_size, image_size - offset));
}

void read_all(ByteSource& source, std::span<uint8_t> bytes, const Entry& entry) {
    if (source.read(bytes) != bytes.size()) {
        throw damaged_entry(entry, " is truncated");
    }
}

/** Unpacked by the reader itself. */
class PlainImage : public ImageReader {
public:
    PlainImage(const Entry& entry, std::unique_ptr<ByteSource> data)
        : entry_(entry), data_(std::move(data)), reader_(entry_, *data_) {
    }

    [[nodiscard]] const Entry& entry() const override {
        return entry_;
    }
    bool next(PackedFrame& frame) override {
        if (offset_ == entry_.size) {
            return false;
        }
        frame.packing = PackedFrame::Packing::plain;
        frame.offset = offset_;
        frame.size = frame_size_at(offset_, entry_.size);
        frame.bytes.resize(frame.size);
        frame.hashes.clear();
        offset_ += reader_.read(frame.bytes);
        return true;
    }
    [[nodiscard]] bool has_hashes() const override {
        return false;
    }

private:
    Entry entry_;
    std::unique_ptr<ByteSource> data_;
    EntryReader reader_;
    uint64_t offset_ = 0;
};

/** Passed on as it is packed. */
class FramedImage : public ImageReader {
public:
    FramedImage(const Entry& entry, std::unique_ptr<ByteSource> data, std::unique_ptr<ByteSource> lengths,
                std::unique_ptr<ByteSource> hashes)
        : entry_(entry), data_(std::move(data)), lengths_(std::move(lengths)), hashes_(std::move(hashes)) {
    }

    [[nodiscard]] const Entry& entry() const override {
        return entry_;
    }
    bool next(PackedFrame& frame) override {
        if (offset_ == entry_.size) {
            return false;
        }
        frame.packing = PackedFrame::Packing::deflated;
        frame.offset = offset_;
        frame.size = frame_size_at(offset_, entry_.size);
        read_hashes(frame);
        read_packed(frame);
        offset_ += frame.size;
        return true;
    }
    [[nodiscard]] bool has_hashes() const override {
        return true;
    }

private:
    void read_hashes(PackedFrame& frame) {
        frame.hashes.resize(block_map_blocks(frame.size));
        read_all(*hashes_, {frame.hashes[0].data(), frame.hashes.size() * sizeof(block_hash)}, entry_);
    }

    /** The map may have been read again since it was checked, so nothing of it is used unchecked. */
    void read_packed(PackedFrame& frame) {
        std::array<uint8_t, sizeof(uint32_t)> stored{};
        read_all(*lengths_, stored, entry_);
        const auto length = load_le<uint32_t>(stored, 0);
        if (add_frame_lengths(stored, entry_.packed_size, &packed_).state != format_state::valid) {
            throw damaged_entry(entry_, ": its block map has changed");
        }
        const bool is_last = offset_ + frame.size == entry_.size;
        frame.bytes.resize(length + block_map_stream_end.size());
        read_all(*data_, std::span(frame.bytes).first(is_last ? frame.bytes.size() : length), entry_);
        const auto end = std::span(frame.bytes).subspan(length);
        if (is_last && !std::ranges::equal(end, block_map_stream_end)) {
            throw damaged_entry(entry_, " does not end after its last frame");
        }
        std::ranges::copy(block_map_stream_end, end.begin());
    }

    Entry entry_;
    std::unique_ptr<ByteSource> data_;
    std::unique_ptr<ByteSource> lengths_;
    std::unique_ptr<ByteSource> hashes_;
    uint64_t offset_ = 0;
    uint64_t packed_ = 0; /* bytes of the frames so far */
};

/** Reads a map in pieces and digests it. */
class MapPieces {
public:
    MapPieces(const Entry& map, ByteSource& source) : reader_(map, source), left_(map.size) {
    }

    /** @return the next piece of at most `most` bytes, a multiple of 4 bytes if `most` is */
    std::span<const uint8_t> next(uint64_t most) {
        const auto piece = std::span(buffer_).first(std::min({uint64_t{buffer_.size()}, most, left_}));
        left_ -= reader_.read(piece);
        digester_.add(piece);
        return piece;
    }
    [[nodiscard]] bool is_done() const {
        return left_ == 0;
    }
    std::string digest() {
        return digester_.finish().sha256;
    }

private:
    EntryReader reader_;
    uint64_t left_;
    Digester digester_{Digester::Kind::sha256};
    std::array<uint8_t, 16384> buffer_{};
};

void demand_valid(format_answer answer, const Entry& entry, const Entry& map) {
    if (answer.state != format_state::valid) {
        throw Failure(ExitCode::refused, map.name + " is not the block map of " + entry.name + ": " + answer.reason);
    }
}

} // namespace

/** Exactly all of the frame has to give exactly all of the bytes. */
void FrameUnpacker::inflate(const PackedFrame& frame, std::span<uint8_t> bytes) {
    if (inflater_ == nullptr) {
        inflater_.reset(libdeflate_alloc_decompressor());
    }
    if (inflater_ == nullptr) {
        throw std::bad_alloc();
    }
    size_t used = 0;
    const auto result = libdeflate_deflate_decompress_ex(inflater_.get(), frame.bytes.data(), frame.bytes.size(),
                                                         bytes.data(), bytes.size(), &used, nullptr);
    if (result != LIBDEFLATE_SUCCESS || used != frame.bytes.size()) {
        throw Failure(ExitCode::refused, format("%s: the frame at byte %llu is damaged", file_.c_str(),
                                                static_cast<unsigned long long>(frame.offset)));
    }
}

std::span<const uint8_t> FrameUnpacker::unpack(const PackedFrame& frame, std::vector<uint8_t>& memory) {
    std::span<const uint8_t> bytes = frame.bytes;
    if (frame.packing == PackedFrame::Packing::deflated) {
        memory.resize(frame.size);
        inflate(frame, memory);
        bytes = memory;
    }
    for (size_t i = 0; i < frame.hashes.size(); ++i) {
        const auto rest = bytes.subspan(i * block_map_block_size);
        if (hasher_.hash(rest.first(std::min<size_t>(rest.size(), block_map_block_size))) != frame.hashes[i]) {
            throw Failure(ExitCode::refused,
                          format("%s: the block at byte %llu differs from its hash", file_.c_str(),
                                 static_cast<unsigned long long>(frame.offset + i * block_map_block_size)));
        }
    }
    return bytes;
}

void check_map(const Image& image, const Entry& entry, const Entry& map, ByteSource& source) {
    if (map.kind != zip_kind::file || map.method != zip_stored || entry.method != zip_deflated) {
        throw Failure(ExitCode::refused, map.name + " is not stored, or " + entry.name + " is not deflated");
    }
    MapPieces pieces(map, source);
    demand_valid(check_block_map_header(pieces.next(sizeof(block_map_header)), map.size, entry.size), entry, map);
    uint64_t sum = 0;
    for (uint64_t left = sizeof(uint32_t) * block_map_frames(entry.size); left > 0;) {
        const auto lengths = pieces.next(left);
        demand_valid(add_frame_lengths(lengths, entry.packed_size, &sum), entry, map);
        left -= lengths.size();
    }
    demand_valid(check_frame_sum(sum, entry.packed_size), entry, map);
    while (!pieces.is_done()) {
        (void)pieces.next(map.size);
    }
    if (pieces.digest() != image.blocks->sha256) {
        throw Failure(ExitCode::refused, map.name + ": digest mismatch");
    }
}

std::unique_ptr<ImageReader> open_framed_image(const Entry& entry, std::unique_ptr<ByteSource> data,
                                               std::unique_ptr<ByteSource> lengths,
                                               std::unique_ptr<ByteSource> hashes) {
    return std::make_unique<FramedImage>(entry, std::move(data), std::move(lengths), std::move(hashes));
}

std::unique_ptr<ImageReader> open_plain_image(const Entry& entry, std::unique_ptr<ByteSource> data) {
    return std::make_unique<PlainImage>(entry, std::move(data));
}

std::unique_ptr<ImageReader> open_image(const Package& package, const Image& image) {
    const Entry& entry = package.at(image.file);
    if (!image.blocks) {
        return open_plain_image(entry, package.data_of(entry));
    }
    const Entry& map = package.at(image.blocks->file);
    check_map(image, entry, map, *package.data_of(map));
    return open_framed_image(entry, package.data_of(entry), package.data_of(map, sizeof(block_map_header)),
                             package.data_of(map, block_map_hashes_offset(entry.size)));
}

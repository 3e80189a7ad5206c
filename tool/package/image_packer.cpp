// SPDX-License-Identifier: Apache-2.0
#include "package/image_packer.h"

#include "board/small_file.h"
#include "console/failure.h"
#include "console/interrupt.h"
#include "console/text.h"
#include "format/zip_file.h"
#include "package/entry_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <libdeflate.h>
#include <new>
#include <unistd.h>
#include <zlib.h>

namespace {

constexpr size_t piece_size = size_t{256} << 10;

using Sink = std::function<void(std::span<const uint8_t>)>;

class Deflater {
public:
    explicit Deflater(Sink sink) : sink_(std::move(sink)), output_(piece_size) {
        constexpr int default_memory = 8;
        if (deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, default_memory, Z_DEFAULT_STRATEGY) !=
            Z_OK) {
            throw std::bad_alloc();
        }
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;
    ~Deflater() {
        deflateEnd(&stream_);
    }

    /** @param flush  Z_NO_FLUSH, Z_FULL_FLUSH or Z_FINISH */
    void add(std::span<const uint8_t> bytes, int flush) {
        stream_.next_in = const_cast<Bytef*>(bytes.data());
        stream_.avail_in = static_cast<uInt>(bytes.size());
        do {
            stream_.next_out = output_.data();
            stream_.avail_out = static_cast<uInt>(output_.size());
            (void)deflate(&stream_, flush);
            const auto made = std::span<const uint8_t>(output_).first(output_.size() - stream_.avail_out);
            if (!made.empty()) {
                sink_(made);
                size_ += made.size();
            }
        } while (stream_.avail_out == 0);
    }
    /** Bytes made so far. */
    [[nodiscard]] uint64_t size() const {
        return size_;
    }

private:
    Sink sink_;
    std::vector<uint8_t> output_;
    z_stream stream_{};
    uint64_t size_ = 0;
};

/** The map of an image, made while its frames are. */
class MapMaker {
public:
    void add(std::span<const uint8_t> frame, uint64_t deflated_size) {
        lengths_.push_back(static_cast<uint32_t>(deflated_size));
        for (; !frame.empty(); frame = frame.subspan(std::min<size_t>(frame.size(), block_map_block_size))) {
            hashes_.push_back(hasher_.hash(frame.first(std::min<size_t>(frame.size(), block_map_block_size))));
        }
    }
    [[nodiscard]] std::vector<uint8_t> finish(uint64_t image_size) const {
        const block_map_header header = make_block_map_header(image_size);
        std::vector<uint8_t> map(record_bytes(header).begin(), record_bytes(header).end());
        const auto* lengths = reinterpret_cast<const uint8_t*>(lengths_.data());
        map.insert(map.end(), lengths, lengths + lengths_.size() * sizeof(uint32_t));
        const auto* hashes = reinterpret_cast<const uint8_t*>(hashes_.data());
        map.insert(map.end(), hashes, hashes + hashes_.size() * sizeof(block_hash));
        return map;
    }

private:
    BlockHasher hasher_;
    std::vector<uint32_t> lengths_;
    std::vector<block_hash> hashes_;
};

Descriptor open_image_file(const std::string& path) {
    Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        throw Failure(ExitCode::failed, "cannot read " + path + because(errno));
    }
    return fd;
}

Descriptor make_unnamed_file(std::string path) {
    Descriptor fd(mkostemp(path.data(), O_CLOEXEC));
    if (fd.get() < 0) {
        throw Failure(ExitCode::failed, "cannot create " + path + because(errno));
    }
    unlink(path.c_str());
    return fd;
}

} // namespace

ImagePacker::ImagePacker(const std::string& staging) : staging_(make_unnamed_file(staging + ".XXXXXX")) {
}

PackedImage ImagePacker::pack(const std::string& path, bool framed, const std::function<void(size_t)>& advance) {
    const Descriptor file = open_image_file(path);
    FileSource source(file.get(), 0, path);
    Deflater deflater([this](std::span<const uint8_t> bytes) {
        write_all(staging_.get(), bytes, "cannot stage the images next to the package");
    });
    Digester digester(Digester::Kind::both);
    MapMaker map;
    PackedImage image{{}, {zip_deflated, 0, 0, 0}, end_, {}};
    std::vector<uint8_t> piece(block_map_frame_size);
    while (const size_t got = source.read(piece)) {
        stop_if_interrupted();
        const auto bytes = std::span<const uint8_t>(piece).first(got);
        const uint64_t before = deflater.size();
        deflater.add(bytes, framed ? Z_FULL_FLUSH : Z_NO_FLUSH);
        if (framed) {
            map.add(bytes, deflater.size() - before);
        }
        digester.add(bytes);
        image.data.crc = libdeflate_crc32(image.data.crc, bytes.data(), bytes.size());
        image.data.size += got;
        advance(got);
    }
    deflater.add({}, Z_FINISH);
    image.data.packed_size = deflater.size();
    end_ += deflater.size();
    image.digests = digester.finish();
    image.map = framed ? map.finish(image.data.size) : std::vector<uint8_t>();
    return image;
}

void ImagePacker::copy(const PackedImage& image, PackageWriter& package) const {
    FileSource source(staging_.get(), image.staged_at);
    std::vector<uint8_t> piece(piece_size);
    for (uint64_t left = image.data.packed_size; left > 0;) {
        stop_if_interrupted();
        const size_t got = source.read(std::span(piece).first(std::min<uint64_t>(left, piece.size())));
        if (got == 0) {
            throw Failure(ExitCode::failed, "the staged images were truncated");
        }
        package.add(std::span(piece).first(got));
        left -= got;
    }
}

std::vector<uint8_t> deflate_text(const std::string& text, PackedData& data) {
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    std::vector<uint8_t> packed;
    Deflater deflater([&](std::span<const uint8_t> made) { packed.insert(packed.end(), made.begin(), made.end()); });
    deflater.add(bytes, Z_FINISH);
    data = {zip_deflated, libdeflate_crc32(0, bytes.data(), bytes.size()), bytes.size(), packed.size()};
    return packed;
}

PackedData describe_stored(std::span<const uint8_t> bytes) {
    return {zip_stored, libdeflate_crc32(0, bytes.data(), bytes.size()), bytes.size(), bytes.size()};
}

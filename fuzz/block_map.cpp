// SPDX-License-Identifier: Apache-2.0
/** For any map and entry, what is accepted is inside the entry, and what is unpacked has its hashes. */
#include "box.h"
#include "console/failure.h"
#include "package/image_reader.h"

/** Two numbers, then the map, then the image's entry. */
struct Input {
    uint64_t image_size;
    std::span<const uint8_t> map;
    std::span<const uint8_t> packed;
};

static Input split(std::span<const uint8_t> data) {
    constexpr size_t head = 8;
    const uint64_t image_size = load_le<uint32_t>(data, 0);
    const size_t map_size = std::min<size_t>(load_le<uint32_t>(data, 4), data.size() - head);
    return {image_size, data.subspan(head, map_size), data.subspan(head + map_size)};
}

/** @return bytes of the image that were unpacked */
static uint64_t read_image(const Input& input) {
    Entry entry{};
    entry.name = "image";
    entry.size = input.image_size;
    entry.packed_size = input.packed.size();
    entry.method = zip_deflated;
    const auto reader =
        open_framed_image(entry, std::make_unique<MemorySource>(input.packed),
                          std::make_unique<MemorySource>(input.map.subspan(sizeof(block_map_header))),
                          std::make_unique<MemorySource>(input.map.subspan(block_map_hashes_offset(input.image_size))));
    FrameUnpacker unpacker("image");
    BlockHasher hasher;
    PackedFrame frame{};
    std::vector<uint8_t> memory;
    uint64_t done = 0;
    while (reader->next(frame)) {
        const auto bytes = unpacker.unpack(frame, memory);
        must(frame.offset == done && bytes.size() == frame.size);
        must(hasher.hash(bytes.first(std::min<size_t>(bytes.size(), block_map_block_size))) == frame.hashes[0]);
        done += bytes.size();
    }
    return done;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) {
        return 0;
    }
    const Input input = split({data, size});
    if (check_block_map(input.map, input.image_size, input.packed.size()).state != format_state::valid) {
        return 0;
    }
    uint64_t sum = 0;
    for (uint64_t i = 0; i < block_map_frames(input.image_size); ++i) {
        sum += load_le<uint32_t>(input.map, sizeof(block_map_header) + i * sizeof(uint32_t));
        must(sum + block_map_stream_end.size() <= input.packed.size());
    }
    must(sum + block_map_stream_end.size() == input.packed.size());
    try {
        must(read_image(input) == input.image_size);
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused);
    }
    return 0;
}

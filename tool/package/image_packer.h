// SPDX-License-Identifier: Apache-2.0
/** Deflates images for a package. Nothing of an image is known before it was read, so all are staged in a file first.
 */
#ifndef TOOL_IMAGE_PACKER_H
#define TOOL_IMAGE_PACKER_H

#include "board/device.h"
#include "board/digest.h"
#include "package/package_writer.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct PackedImage {
    Digests digests;
    PackedData data;
    uint64_t staged_at;       /* offset of its data in the staging file */
    std::vector<uint8_t> map; /* empty without frames */
};

/** Images of at least this size are packed in frames, unless the user does not want it. */
inline constexpr uint64_t framed_image_size = uint64_t{1} << 20;

class ImagePacker {
public:
    /** @param staging  beginning of the path of the staging file, which is removed from its directory at once */
    explicit ImagePacker(const std::string& staging);

    /** Reads and deflates a file. @param advance  is called with the bytes of each piece that was read */
    PackedImage pack(const std::string& path, bool framed, const std::function<void(size_t)>& advance);

    /** Copies the data of a packed image into the package. */
    void copy(const PackedImage& image, PackageWriter& package) const;

private:
    Descriptor staging_;
    uint64_t end_ = 0; /* of the staged data */
};

/** A short entry as it goes into a package. */
std::vector<uint8_t> deflate_text(const std::string& text, PackedData& data);

/** A stored entry. */
PackedData describe_stored(std::span<const uint8_t> bytes);

#endif

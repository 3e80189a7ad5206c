// SPDX-License-Identifier: Apache-2.0
#include "package/image_source.h"

Description FileImages::describe(const TrustOptions& trust, std::string& signer) const {
    return read_description(package_, trust, signer);
}

void FileImages::check_contents(Description& description, bool is_signed) {
    ::check_contents(package_, description, is_signed);
    for (Image& image : description.images) {
        image.size = package_.at(image.file).size;
        if (image.blocks) {
            (void)open_image(package_, image); /* checks the block map */
        }
    }
}

std::unique_ptr<ImageReader> FileImages::open(const Image& image) {
    return open_image(package_, image);
}

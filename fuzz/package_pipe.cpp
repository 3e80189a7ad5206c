// SPDX-License-Identifier: Apache-2.0
/** For any package that a pipe may deliver, the same is read from a file. */
#include "package/package_pipe.h"
#include "box.h"
#include "console/failure.h"
#include "package/image_source.h"

#include <algorithm>
#include <fcntl.h>
#include <map>

using Images = std::map<std::string, std::vector<uint8_t>>;

static std::vector<uint8_t> read_image(ImageSource& source, const Image& image) {
    const auto reader = source.open(image);
    FrameUnpacker unpacker(image.file);
    PackedFrame frame{};
    std::vector<uint8_t> memory, whole;
    while (reader->next(frame)) {
        const auto bytes = unpacker.unpack(frame, memory);
        must(frame.offset == whole.size() && bytes.size() == frame.size);
        whole.insert(whole.end(), bytes.begin(), bytes.end());
    }
    must(whole.size() == reader->entry().size);
    return whole;
}

/** All images, as an installation reads them. */
static Images read_images(ImageSource& source) {
    std::string signer;
    Progress progress(ProgressMode::none);
    Images images;
    Description description = source.describe({}, signer);
    source.check_contents(description, false);
    source.hold_images(progress);
    for (const std::string& file : files_in_order(description)) {
        images[file] = read_image(source, *std::ranges::find(description.images, file, &Image::file));
    }
    source.finish();
    return images;
}

/** A locator elsewhere than directly before the end record: a package in a file may not have one. */
static bool has_stray_locator(std::string_view file) {
    const size_t locator = file.rfind("PK\6\7");
    return locator != std::string_view::npos && locator + sizeof(zip64_locator) != file.rfind("PK\5\6");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = put_input(data, size);
    const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    Images images;
    try {
        PackagePipe pipe(fd.get());
        images = read_images(pipe);
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused);
        return 0;
    }
    if (!has_stray_locator({reinterpret_cast<const char*>(data), size})) {
        const Package package(path); /* refuses nothing of this */
        FileImages file(package);
        must(read_images(file) == images);
    }
    return 0;
}

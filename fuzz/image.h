// SPDX-License-Identifier: Apache-2.0
/** The version of a firmware image in memory. */
#pragma once

#include "box.h"
#include "fip_prase.h"

#include <optional>
#include <sys/mman.h>

/* The reader requests as much memory as an entry of a package claims to need. */
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

/* The image that was read last. */
inline const int image_file = memfd_create("image", 0);
inline const std::string image_path = "/proc/self/fd/" + std::to_string(image_file);

/** Reads `bytes`, followed by zeros up to `size`. */
inline std::optional<uint32_t> version_of(const std::string& bytes, size_t size, uint32_t kind) {
    must(ftruncate(image_file, 0) == 0 && pwrite(image_file, bytes.data(), bytes.size(), 0) >= 0);
    must(ftruncate(image_file, static_cast<off_t>(size)) == 0);
    uint32_t version = 0;
    return vx_fip_img_anti_read(image_path.c_str(), kind, &version) == 0 ? std::optional(version) : std::nullopt;
}

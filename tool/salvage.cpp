#include "salvage.h"

#include "device.h"
#include "device_request.h"
#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t piece_size = 512; /* no page is smaller */

struct Volume {
    std::string path;
    Descriptor fd;
    size_t leb_size;

    [[nodiscard]] off_t start_of(int32_t lnum) const {
        return static_cast<off_t>(lnum) * static_cast<off_t>(leb_size);
    }
};

[[noreturn]] void fail(const Volume& volume, int32_t lnum, const char* what) {
    throw Failure(ExitCode::device, format("cannot %s LEB %d of %s", what, lnum, volume.path.c_str()) + because(errno),
                  "", "what stands in " + volume.path + " is unknown");
}

bool is_readable(const Volume& volume, int32_t lnum, std::vector<uint8_t>& leb) {
    return pread(volume.fd.get(), leb.data(), leb.size(), volume.start_of(lnum)) >= 0;
}

/** Reads piece by piece what can be read. */
void collect(const Volume& volume, int32_t lnum, std::vector<uint8_t>& leb) {
    std::fill(leb.begin(), leb.end(), 0xFF);
    for (size_t at = 0; at < leb.size(); at += piece_size) {
        uint8_t piece[piece_size];
        const size_t length = std::min(piece_size, leb.size() - at);
        if (pread(volume.fd.get(), piece, length, volume.start_of(lnum) + static_cast<off_t>(at)) ==
            static_cast<ssize_t>(length)) {
            std::copy_n(piece, length, leb.begin() + static_cast<ptrdiff_t>(at));
        }
    }
}

void write_anew(const Volume& volume, int32_t lnum, const std::vector<uint8_t>& leb) {
    if (ubi_allow_direct_writes(volume.fd.get()) != 0) {
        fail(volume, lnum, "prepare");
    }
    if (ubi_erase_leb(volume.fd.get(), lnum) != 0) {
        fail(volume, lnum, "erase");
    }
    if (pwrite(volume.fd.get(), leb.data(), leb.size(), volume.start_of(lnum)) != static_cast<ssize_t>(leb.size())) {
        fail(volume, lnum, "write");
    }
}

} // namespace

bool salvage(const std::string& path) {
    Volume volume{path, Descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC)), 0};
    ubi_geometry info{};
    if (volume.fd.get() < 0 || ubi_get_geometry(volume.fd.get(), &info) != 0 || info.leb_size <= 0) {
        return false;
    }
    volume.leb_size = static_cast<size_t>(info.leb_size);
    std::vector<uint8_t> leb(volume.leb_size);
    bool wrote = false;
    for (int32_t lnum = 0; volume.start_of(lnum) < info.used_size; ++lnum) {
        if (!is_readable(volume, lnum, leb)) {
            collect(volume, lnum, leb);
            write_anew(volume, lnum, leb);
            wrote = true;
        }
    }
    return wrote;
}

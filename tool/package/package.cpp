#include "package/package.h"

#include "console/failure.h"
#include "console/text.h"
#include "velox_ota_hl.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr size_t piece_size = size_t{256} << 10;

Failure damaged(const std::string& what) {
    return {ExitCode::refused, what, "tessera package check-zip reports which entries are damaged"};
}

Descriptor open_regular_file(const std::string& path) {
    Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) {
        throw Failure(ExitCode::refused, "cannot open " + path + because(errno));
    }
    struct stat status {};
    if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw Failure(ExitCode::refused, path + " is not a regular file");
    }
    return fd;
}

/** The unpacked size; if the extra field lacks it, the size stays unchanged, as in the library. */
uint64_t true_size(const unz_file_info64& info, std::span<const uint8_t> extra) {
    uint64_t size = info.uncompressed_size;
    if (size == zip_size_in_extra) {
        (void)decode_zip64_size(extra, &size);
    }
    return size;
}

} // namespace

/** As the library counts: a name that is too long to be checked counts as an image. */
bool Entry::is_image() const {
    const auto has_extension = [&](const char* extension) { return is_xxx_file(name.c_str(), extension) != 0; };
    return has_extension("img") || has_extension("bin") || has_extension("ubifs");
}

Package::Package(const std::string& path)
    : fd_(open_regular_file(path)), path_("/proc/self/fd/" + std::to_string(fd_.get())),
      zip_(unzOpen64(path_.c_str())) {
    if (zip_ == nullptr) {
        throw Failure(ExitCode::refused, path + " is not a zip package");
    }
    list_entries();
}

void Package::list_entries() {
    unz_global_info64 info;
    bool is_sound = unzGetGlobalInfo64(zip_.get(), &info) == UNZ_OK;
    for (ZPOS64_T i = 0; is_sound && i < info.number_entry; ++i) {
        is_sound = (i == 0 ? unzGoToFirstFile(zip_.get()) : unzGoToNextFile(zip_.get())) == UNZ_OK;
        if (is_sound) {
            entries_.push_back(current_entry());
        }
    }
    if (!is_sound) {
        throw Failure(ExitCode::refused, "the directory of the package is damaged");
    }
}

Entry Package::current_entry() const {
    unz_file_info64 info;
    Entry entry{};
    int result = unzGetCurrentFileInfo64(zip_.get(), &info, nullptr, 0, nullptr, 0, nullptr, 0);
    std::vector<uint8_t> extra(result == UNZ_OK ? info.size_file_extra : 0);
    if (result == UNZ_OK) { /* a larger request would read more, which may be damaged */
        entry.name.resize(info.size_filename);
        result = unzGetCurrentFileInfo64(zip_.get(), &info, entry.name.data(), entry.name.size(), extra.data(),
                                         extra.size(), nullptr, 0);
    }
    if (result != UNZ_OK) {
        throw Failure(ExitCode::refused, "the directory of the package is damaged");
    }
    (void)unzGetFilePos64(zip_.get(), &entry.position);
    entry.kind = zip_kind_of(entry.name.c_str(), info.external_fa); /* up to a NUL, as the library */
    entry.size = true_size(info, extra);
    entry.in_zip64 = info.uncompressed_size == zip_size_in_extra;
    entry.crc = static_cast<uint32_t>(info.crc);
    entry.packed_size = info.compressed_size;
    entry.mode = zip_permissions(info.external_fa);
    entry.date = info.tmu_date;
    return entry;
}

bool Package::has(std::string_view name) const {
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.name == name; });
}

const Entry& Package::at(std::string_view name) const {
    const auto is_named = [&](const Entry& entry) { return entry.name == name; };
    const auto found = std::find_if(entries_.begin(), entries_.end(), is_named);
    if (found == entries_.end()) {
        throw Failure(ExitCode::refused, "the package has no entry " + std::string(name));
    }
    if (std::find_if(found + 1, entries_.end(), is_named) != entries_.end()) {
        throw Failure(ExitCode::refused, "the package has more than one entry " + std::string(name));
    }
    return *found;
}

bool Package::read(const Entry& entry, const std::function<bool(std::span<const uint8_t>)>& take) const {
    unz64_file_pos position = entry.position;
    if (unzGoToFilePos64(zip_.get(), &position) != UNZ_OK || unzOpenCurrentFile(zip_.get()) != UNZ_OK) {
        throw damaged(entry.name + " cannot be unpacked");
    }
    std::vector<uint8_t> piece(std::min<uint64_t>(piece_size, std::max<uint64_t>(1, entry.size)));
    uint64_t done = 0;
    uLong sum = 0;
    while (done < entry.size) {
        const auto wanted = static_cast<unsigned>(std::min<uint64_t>(piece.size(), entry.size - done));
        const int got = unzReadCurrentFile(zip_.get(), piece.data(), wanted);
        if (got <= 0) {
            unzCloseCurrentFile(zip_.get());
            throw damaged(entry.name + (got < 0 ? " cannot be unpacked" : " is truncated"));
        }
        done += static_cast<uint64_t>(got);
        sum = entry.in_zip64 ? crc32(sum, piece.data(), static_cast<unsigned>(got)) : sum;
        if (!take(std::span(piece).first(static_cast<size_t>(got)))) {
            unzCloseCurrentFile(zip_.get());
            return false;
        }
    }
    /* minizip does not check the checksum of an entry whose size is in a zip64 field. */
    if (unzCloseCurrentFile(zip_.get()) == UNZ_CRCERROR || (entry.in_zip64 && sum != entry.crc)) {
        throw damaged(entry.name + ": checksum mismatch");
    }
    return true;
}

std::string Package::text(std::string_view name, size_t limit) const {
    const Entry& entry = at(name);
    if (entry.size > limit) {
        throw Failure(ExitCode::refused, entry.name + " is larger than " + human_bytes(limit));
    }
    std::string text;
    read(entry, [&](std::span<const uint8_t> piece) {
        text.append(piece.begin(), piece.end());
        return true;
    });
    return text;
}

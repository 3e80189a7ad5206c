// SPDX-License-Identifier: Apache-2.0
#include "package/package.h"

#include "console/failure.h"
#include "console/text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace {

constexpr size_t piece_size = size_t{256} << 10;
constexpr size_t longest_comment = 0xFFFF;

Failure damaged_directory() {
    return {ExitCode::refused, "the directory of the package is damaged"};
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

uint64_t size_of(const Descriptor& fd) {
    struct stat status {};
    return fstat(fd.get(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

template <class Record>
Record load(std::span<const uint8_t> bytes) {
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

/** Where the last record with this signature begins; the tail may end within the record. */
std::optional<size_t> find_last(std::span<const uint8_t> tail, uint32_t signature) {
    for (size_t at = tail.size(); at-- > 0;) {
        if (tail.size() - at >= sizeof signature && load_le<uint32_t>(tail, at) == signature) {
            return at;
        }
    }
    return std::nullopt;
}

/**
 * Where the last end record begins in the file's tail. A truncated one is not skipped: other readers, the library's
 * among them, do not search further either, and would see another directory.
 */
std::optional<size_t> find_end(std::span<const uint8_t> tail) {
    const auto at = find_last(tail, zip_end_signature);
    return at && tail.size() - *at >= sizeof(zip_end) ? at : std::nullopt;
}

Entry make_entry(const zip_directory_header& header, const std::string& name, std::span<const uint8_t> extra) {
    const zip_entry_fields& fields = header.fields;
    Entry entry{};
    entry.name = name;
    entry.kind = zip_kind_of(name.c_str(), header.attributes); /* up to a NUL, as the library */
    entry.method = fields.method;
    entry.flags = fields.flags;
    entry.crc = fields.crc;
    entry.mode = zip_permissions(header.attributes);
    entry.time = fields.time;
    entry.date = fields.date;
    zip_extent extent{fields.size, fields.packed_size, header.offset};
    (void)zip_complete_extent(extra, &extent); /* without one a value stays as it is, as in the library */
    entry.size = extent.size;
    entry.packed_size = extent.packed_size;
    entry.position = extent.offset;
    return entry;
}

} // namespace

Package::Package(const std::string& path)
    : fd_(open_regular_file(path)), path_("/proc/self/fd/" + std::to_string(fd_.get())), file_size_(size_of(fd_)) {
    list_entries(find_directory(path));
}

void Package::read_at(uint64_t offset, std::span<uint8_t> bytes) const {
    const bool is_inside = bytes.size() <= file_size_ && offset <= file_size_ - bytes.size();
    if (!is_inside || FileSource(fd_.get(), offset).read(bytes) != bytes.size()) {
        throw damaged_directory();
    }
}

/** The zip64 end that the locator at this place of the tail leads to. */
std::optional<Package::WideEnd> Package::follow_locator(std::span<const uint8_t> tail, size_t at) const {
    if (tail.size() - at < sizeof(zip64_locator)) {
        return std::nullopt;
    }
    const auto locator = load<zip64_locator>(tail.subspan(at));
    std::array<uint8_t, sizeof(zip64_end)> bytes{};
    const bool is_inside = bytes.size() <= file_size_ && locator.end_offset <= file_size_ - bytes.size();
    if (locator.end_disk != 0 || locator.disks != 1 || !is_inside) {
        return std::nullopt;
    }
    read_at(locator.end_offset, bytes);
    const WideEnd end{locator.end_offset, load<zip64_end>(bytes)};
    return end.record.signature == zip64_end_signature ? std::optional(end) : std::nullopt;
}

/**
 * The zip64 end whose locator is directly before the end record. The library, and other readers, take the last locator
 * of the tail, wherever it is: they would see another directory, so a package in which the two differ is refused.
 */
std::optional<Package::WideEnd> Package::find_wide_end(std::span<const uint8_t> tail, size_t end) const {
    const auto last = find_last(tail, zip64_locator_signature);
    const auto wide = last ? follow_locator(tail, *last) : std::nullopt;
    const bool is_before_end =
        end >= sizeof(zip64_locator) && load_le<uint32_t>(tail, end - sizeof(zip64_locator)) == zip64_locator_signature;
    if (wide.has_value() != is_before_end || (wide && *last != end - sizeof(zip64_locator))) {
        throw wide ? Failure(ExitCode::refused, "the package has more than one directory") : damaged_directory();
    }
    return wide;
}

/** Also sets `base_`. */
Package::Directory Package::find_directory(const std::string& path) {
    std::vector<uint8_t> tail(std::min<uint64_t>(file_size_, sizeof(zip_end) + longest_comment));
    const uint64_t tail_offset = file_size_ - tail.size();
    read_at(tail_offset, tail);
    const auto at = find_end(tail);
    if (!at) {
        throw Failure(ExitCode::refused, path + " is not a zip package");
    }
    const auto end = load<zip_end>(std::span(tail).subspan(*at));
    Directory directory{end.directory_offset, end.directory_size, end.entries};
    uint64_t directory_end = tail_offset + *at;
    if (const auto wide = find_wide_end(tail, *at)) {
        directory = {wide->record.directory_offset, wide->record.directory_size, wide->record.entries};
        directory_end = wide->offset;
    }
    if (directory.size > directory_end || directory.offset > directory_end - directory.size) {
        throw damaged_directory();
    }
    base_ = directory_end - directory.size - directory.offset;
    return directory;
}

void Package::list_entries(const Directory& directory) {
    uint64_t offset = base_ + directory.offset;
    for (uint64_t i = 0; i < directory.entries; ++i) {
        std::array<uint8_t, sizeof(zip_directory_header)> head{};
        read_at(offset, head);
        const auto header = load<zip_directory_header>(head);
        std::vector<uint8_t> rest(size_t{header.fields.name_length} + header.fields.extra_length);
        read_at(offset + head.size(), rest);
        if (header.signature != zip_directory_signature) {
            throw damaged_directory();
        }
        const auto name = std::span(rest).first(header.fields.name_length);
        entries_.push_back(
            make_entry(header, std::string(name.begin(), name.end()), std::span(rest).subspan(name.size())));
        offset += head.size() + rest.size() + header.comment_length;
    }
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

std::unique_ptr<ByteSource> Package::data_of(const Entry& entry, uint64_t skipped) const {
    std::array<uint8_t, sizeof(zip_local_header)> head{};
    const uint64_t offset = entry.position + base_;
    if (offset < base_ || offset > file_size_ || file_size_ - offset < head.size()) {
        throw damaged_entry(entry, " cannot be unpacked: its data is outside the package");
    }
    read_at(offset, head);
    const auto header = load<zip_local_header>(head);
    std::vector<uint8_t> rest(size_t{header.fields.name_length} + header.fields.extra_length);
    const uint64_t data = offset + head.size() + rest.size();
    if (data > file_size_ || entry.packed_size > file_size_ - data) {
        throw damaged_entry(entry, " cannot be unpacked: its data is outside the package");
    }
    read_at(offset + head.size(), rest);
    if (!is_header_of(header, rest, entry)) {
        throw damaged_entry(entry, " cannot be unpacked: its header differs from the directory");
    }
    return std::make_unique<FileSource>(fd_.get(), data + skipped);
}

bool Package::read(const Entry& entry, const std::function<bool(std::span<const uint8_t>)>& take) const {
    const auto source = data_of(entry);
    EntryReader reader(entry, *source);
    std::vector<uint8_t> piece(std::min<uint64_t>(piece_size, entry.size));
    do {
        const size_t got = reader.read(piece);
        if (got > 0 && !take(std::span(piece).first(got))) {
            return false;
        }
    } while (!reader.is_done());
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

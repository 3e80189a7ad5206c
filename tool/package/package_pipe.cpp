// SPDX-License-Identifier: Apache-2.0
#include "package/package_pipe.h"

#include "board/small_file.h"
#include "console/interrupt.h"
#include "console/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int longest_wait_ms = 100; /* until a request to end is noticed */

constexpr size_t longest_shown_name = 96;

/** The sentence has a name in it, which may be anything. */
[[gnu::noinline]] Failure refused(const char* before, const std::string& name = {}, const std::string& after = {}) {
    return {ExitCode::refused, before + printable(name.substr(0, longest_shown_name)) + after};
}

[[gnu::noinline]] Failure not_from_pipe(const char* before, const std::string& name = {},
                                        const std::string& after = {}) {
    Failure failure = refused(before, name, after);
    failure.hint = "install this package from a file";
    return failure;
}

[[gnu::noinline]] Failure wrong_size(const Image& image) {
    return refused("", image.file, " does not have the size that the description states");
}

[[gnu::noinline]] Failure cannot(const char* what) {
    return {ExitCode::failed, what + because(errno)};
}

template <class Record>
Record load(std::span<const uint8_t> bytes) {
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

/** Lets a reader that owns its source read from one that is not its own. */
class BorrowedSource : public ByteSource {
public:
    explicit BorrowedSource(ByteSource& source) : source_(source) {
    }
    size_t read(std::span<uint8_t> bytes) override {
        return source_.read(bytes);
    }

private:
    ByteSource& source_;
};

/** An image whose reading can be ended while the pipe has nothing to read. */
class PipedImage : public ImageReader {
public:
    PipedImage(PipeSource& source, std::unique_ptr<ImageReader> reader) : source_(source), reader_(std::move(reader)) {
    }
    PipedImage(const PipedImage&) = delete;
    PipedImage& operator=(const PipedImage&) = delete;
    ~PipedImage() override {
        source_.abandon(false);
    }
    [[nodiscard]] const Entry& entry() const override {
        return reader_->entry();
    }
    bool next(PackedFrame& frame) override {
        return reader_->next(frame);
    }
    [[nodiscard]] bool has_hashes() const override {
        return reader_->has_hashes();
    }
    void abandon() override {
        source_.abandon(true);
    }

private:
    PipeSource& source_;
    std::unique_ptr<ImageReader> reader_;
};

Entry make_entry(const zip_local_header& header, std::span<const uint8_t> rest) {
    const zip_entry_fields& fields = header.fields;
    const auto name = rest.first(fields.name_length);
    zip_extent extent{fields.size, fields.packed_size, 0};
    Entry entry{};
    entry.name.assign(name.begin(), name.end());
    if (!zip_complete_extent(rest.subspan(name.size()), &extent)) {
        throw refused("the header of ", entry.name, " is damaged");
    }
    if ((fields.flags & zip_flag_sizes_follow) != 0) {
        throw not_from_pipe("", entry.name, " states its size only after its data");
    }
    entry.kind = zip_kind_of(entry.name.c_str(), 0);
    entry.size = extent.size;
    entry.packed_size = extent.packed_size;
    entry.method = fields.method;
    entry.flags = fields.flags;
    entry.crc = fields.crc;
    return entry;
}

/** @param rest  the name and the extra field after the header in the directory, and more */
bool is_header_of(const Entry& entry, const zip_directory_header& header, std::span<const uint8_t> rest) {
    const zip_entry_fields& fields = header.fields;
    zip_extent extent{fields.size, fields.packed_size, header.offset};
    return std::ranges::equal(rest.first(fields.name_length), entry.name) &&
           zip_complete_extent(rest.subspan(fields.name_length, fields.extra_length), &extent) &&
           extent.size == entry.size && extent.packed_size == entry.packed_size && extent.offset == entry.position &&
           ((fields.flags ^ entry.flags) & zip_flag_encrypted) == 0 && fields.method == entry.method &&
           fields.crc == entry.crc && zip_kind_of(entry.name.c_str(), header.attributes) == entry.kind;
}

/** What the end of a package has to state about its directory. */
struct DirectoryPlace {
    uint64_t entries;
    uint64_t size;
    uint64_t offset;
};

/** @param bytes  the zip64 end and its locator  @param offset  of the zip64 end */
bool is_wide_end_of(const DirectoryPlace& directory, std::span<const uint8_t> bytes, uint64_t offset) {
    const auto end = load<zip64_end>(bytes);
    const auto locator = load<zip64_locator>(bytes.subspan(sizeof end));
    return end.length == zip64_end_length && end.entries == directory.entries && end.directory_size == directory.size &&
           end.directory_offset == directory.offset && locator.signature == zip64_locator_signature &&
           locator.end_offset == offset;
}

/** @param is_wide  a zip64 end has the values that are all ones */
bool is_end_of(const DirectoryPlace& directory, const zip_end& end, bool is_wide) {
    const auto states = [is_wide](uint64_t stated, uint64_t ones, uint64_t value) {
        return stated == value || (is_wide && stated == ones);
    };
    return end.signature == zip_end_signature && states(end.entries, zip_wide16, directory.entries) &&
           states(end.directory_size, zip_wide32, directory.size) &&
           states(end.directory_offset, zip_wide32, directory.offset);
}

/** Whether other readers would take a comment for the end of the package. */
bool has_end_signature(std::span<const uint8_t> comment) {
    return !comment.empty() &&
           memmem(comment.data(), comment.size(), &zip_end_signature, sizeof zip_end_signature) != nullptr;
}

/** Everything that the entry of an image could not be checked for before its first byte. */
void check_described(const Image& image, bool is_signed) {
    if (!image.size) {
        throw not_from_pipe("update.json: partition ", image.name,
                            ": \"size\" is missing, which a package from a pipe needs");
    }
    if (!image.is_ab() && !image.blocks) {
        throw not_from_pipe("", image.file,
                            " has no block map, so it is not written from a pipe to a partition that exists once");
    }
    if (image.blocks && block_map_size(*image.size) > piped_map_limit) {
        throw not_from_pipe("the block map of ", image.file, " is larger than 64 MiB");
    }
    check_cover(image, is_signed);
}

} // namespace

/* ---- the pipe ---- */

/** @return 0 at the end */
size_t PipeSource::read_some(std::span<uint8_t> bytes) {
    for (;;) {
        stop_if_interrupted();
        if (is_abandoned_) {
            throw Failure(ExitCode::failed, "the installation has ended");
        }
        pollfd state{fd_, POLLIN, 0};
        if (poll(&state, 1, longest_wait_ms) <= 0) { /* a signal, or a writer that pauses */
            continue;
        }
        const ssize_t got = ::read(fd_, bytes.data(), bytes.size());
        if (got >= 0) {
            return static_cast<size_t>(got);
        }
        if (errno != EINTR && errno != EAGAIN) {
            throw cannot("cannot read standard input");
        }
    }
}

size_t PipeSource::read(std::span<uint8_t> bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const size_t got = read_some(bytes.subspan(done));
        if (got == 0) {
            stop_if_interrupted(); /* Ctrl-C ends the writer, too */
            throw position_ == 0 ? refused("standard input is empty")
                                 : refused("standard input ends before the end of the package");
        }
        done += got;
        position_ += got;
    }
    return bytes.size();
}

bool PipeSource::is_at_end() {
    uint8_t extra = 0;
    return read_some({&extra, 1}) == 0;
}

/* ---- its entries ---- */

PackagePipe::PackagePipe(int fd) : source_(fd) {
    read_header();
    if (!next_ || next_->name != description_entry) {
        throw not_from_pipe("the package from standard input does not begin with ", description_entry);
    }
    const std::vector<uint8_t> text = take_entry(description_limit);
    description_.assign(text.begin(), text.end());
    while (next_ && is_signature_name(next_->name)) {
        const std::vector<uint8_t> signature = take_entry(signature_limit);
        signatures_.emplace_back(signature.begin(), signature.end());
    }
}

std::vector<uint8_t> PackagePipe::read_bytes(size_t size) {
    std::vector<uint8_t> bytes(size);
    source_.read(bytes);
    return bytes;
}

/** Unless it has been read already. */
void PackagePipe::read_header() {
    if (next_ || is_directory_) {
        return;
    }
    const uint64_t position = source_.position();
    source_.read(head_);
    const auto header = load<zip_local_header>(head_);
    is_directory_ = header.signature == zip_directory_signature && !entries_.empty();
    if (is_directory_) {
        directory_offset_ = position;
        return;
    }
    if (header.signature != zip_local_signature) {
        throw entries_.empty() ? refused("standard input is not a zip package")
                               : refused("standard input has other data after ", entries_.back().name);
    }
    next_ = make_entry(header, read_bytes(size_t{header.fields.name_length} + header.fields.extra_length));
    if (std::ranges::find(entries_, next_->name, &Entry::name) != entries_.end()) {
        throw refused("the package has more than one entry ", next_->name);
    }
    next_->position = position;
    entries_.push_back(*next_);
}

/** The whole data of the next entry. The header after it is read, too. */
std::vector<uint8_t> PackagePipe::take_entry(uint64_t limit) {
    const Entry entry = *next_;
    if (entry.size > limit) {
        throw refused("", entry.name, " is larger than " + human_bytes(limit));
    }
    std::vector<uint8_t> bytes(entry.size);
    EntryReader(entry, source_).read(bytes);
    next_.reset();
    read_header();
    return bytes;
}

/** The header of the next entry, which has to be this one. */
Entry PackagePipe::expect_entry(const std::string& name) {
    if (!next_ || next_->name != name) {
        throw not_from_pipe("the package from standard input has ", next_ ? next_->name : "its end",
                            " where " + name + " is expected");
    }
    return *next_;
}

std::unique_ptr<ImageReader> PackagePipe::open_next(const Image& image) {
    read_header();
    Entry map{};
    if (image.blocks) {
        map = expect_entry(image.blocks->file);
        map_ = take_entry(block_map_size(*image.size));
    }
    const Entry entry = expect_entry(image.file);
    if (entry.kind != zip_kind::file || entry.size != image.size) {
        throw wrong_size(image);
    }
    next_.reset(); /* the header after the image is read when the image was */
    auto data = std::make_unique<BorrowedSource>(source_);
    if (!image.blocks) {
        return std::make_unique<PipedImage>(source_, open_plain_image(entry, std::move(data)));
    }
    MemorySource whole(map_);
    check_map(image, entry, map, whole);
    const std::span<const uint8_t> bytes(map_);
    return std::make_unique<PipedImage>(
        source_, open_framed_image(entry, std::move(data),
                                   std::make_unique<MemorySource>(bytes.subspan(sizeof(block_map_header))),
                                   std::make_unique<MemorySource>(bytes.subspan(block_map_hashes_offset(entry.size)))));
}

/* ---- for the installation ---- */

Description PackagePipe::describe(const TrustOptions& trust, std::string& signer) const {
    return accept_description(description_, signatures_, trust, signer);
}

void PackagePipe::check_contents(Description& description, bool is_signed) {
    for (const Image& image : description.images) {
        check_described(image, is_signed);
    }
    uint64_t room = piped_hold_limit;
    for (const std::string& file : files_in_order(description)) {
        const auto is_of_file = [&](const Image& image) { return image.file == file; };
        const auto found = std::ranges::find_if(description.images, is_of_file);
        if (!is_checked_first(description, file)) {
            if (std::ranges::count_if(description.images, is_of_file) > 1) {
                throw not_from_pipe("", file, " is for two partitions, but an image from a pipe is read once");
            }
        } else if (*found->size > room) {
            throw not_from_pipe("the images up to ", file, " that are checked first have more than 64 MiB");
        } else {
            room -= *found->size;
            held_.push_back(Held{*found});
        }
    }
}

const PackagePipe::Held* PackagePipe::find_held(const std::string& file) const {
    const auto found = std::ranges::find_if(held_, [&](const Held& held) { return held.image.file == file; });
    return found != held_.end() ? &*found : nullptr;
}

/** Nothing is read twice from the pipe: what was checked is what will be written. */
void PackagePipe::hold(Held& held) {
    const auto reader = open_next(held.image);
    FrameUnpacker unpacker(held.image.file);
    PackedFrame frame{};
    std::vector<uint8_t> memory;
    held.fd = Descriptor(memfd_create("image", MFD_CLOEXEC));
    if (held.fd.get() < 0) {
        throw cannot("cannot hold an image in memory");
    }
    held.entry = reader->entry();
    held.entry.method = zip_stored;
    held.entry.flags = 0;
    held.entry.packed_size = held.entry.size;
    held.entry.crc = 0;
    while (reader->next(frame)) {
        const auto bytes = unpacker.unpack(frame, memory);
        held.entry.crc = libdeflate_crc32(held.entry.crc, bytes.data(), bytes.size());
        write_all(held.fd.get(), bytes, "cannot hold an image in memory");
    }
}

void PackagePipe::hold_images(Progress& progress) {
    for (Held& held : held_) {
        progress.begin("read", held.image.file);
        hold(held);
    }
}

std::unique_ptr<ImageReader> PackagePipe::open(const Image& image) {
    const Held* held = find_held(image.file);
    if (held == nullptr) {
        return open_next(image);
    }
    if (held->entry.size != image.size) {
        throw wrong_size(image);
    }
    return open_plain_image(held->entry, std::make_unique<FileSource>(held->fd.get(), 0, image.file));
}

bool PackagePipe::is_read_once(const Image& image) const {
    return find_held(image.file) == nullptr;
}

std::string PackagePipe::path_of(const Image& image) const {
    return "/proc/self/fd/" + std::to_string(find_held(image.file)->fd.get());
}

/* ---- the end ---- */

/** Other programs read a package by its directory, so it may not show them other entries. */
void PackagePipe::read_directory() {
    for (const Entry& entry : entries_) {
        std::vector<uint8_t> head(head_.begin(), &entry == &entries_.front() ? head_.end() : head_.begin());
        const auto more = read_bytes(sizeof(zip_directory_header) - head.size());
        head.insert(head.end(), more.begin(), more.end());
        const auto header = load<zip_directory_header>(head);
        const auto rest =
            read_bytes(size_t{header.fields.name_length} + header.fields.extra_length + header.comment_length);
        if (header.signature != zip_directory_signature || !is_header_of(entry, header, rest)) {
            throw not_from_pipe("the directory of the package differs from its entries");
        }
    }
}

void PackagePipe::read_end() {
    const uint64_t offset = source_.position();
    const DirectoryPlace directory{entries_.size(), offset - directory_offset_, directory_offset_};
    std::array<uint8_t, sizeof(zip_end)> bytes{};
    source_.read(bytes);
    const bool is_wide = load<zip_end>(bytes).signature == zip64_end_signature;
    bool is_consistent = true;
    if (is_wide) {
        std::array<uint8_t, sizeof(zip64_end) + sizeof(zip64_locator)> wide{};
        std::ranges::copy(bytes, wide.begin());
        source_.read(std::span(wide).subspan(bytes.size()));
        is_consistent = is_wide_end_of(directory, wide, offset);
        source_.read(bytes);
    }
    const auto end = load<zip_end>(bytes);
    is_consistent = is_consistent && is_end_of(directory, end, is_wide);
    const std::vector<uint8_t> comment = read_bytes(end.comment_length);
    if (!is_consistent || has_end_signature(comment)) {
        throw not_from_pipe("the directory of the package differs from its entries");
    }
    if (!source_.is_at_end()) {
        throw refused("standard input has other data after the package");
    }
}

void PackagePipe::finish() {
    if (is_finished_) {
        return;
    }
    read_header();
    if (next_) {
        throw not_from_pipe("the package from standard input has an entry that is not described: ", next_->name);
    }
    read_directory();
    read_end();
    is_finished_ = true;
}

// SPDX-License-Identifier: Apache-2.0
#include "package/entry_reader.h"

#include "console/text.h"
#include "velox_ota_hl.h"

#include <algorithm>
#include <cerrno>
#include <libdeflate.h>
#include <new>
#include <unistd.h>

namespace {

constexpr size_t input_size = size_t{64} << 10;

} // namespace

/** As the library counts: a name that is too long to be checked counts as an image. */
bool Entry::is_image() const {
    return std::ranges::any_of(zip_image_extensions,
                               [&](const char* extension) { return is_xxx_file(name.c_str(), extension) != 0; });
}

Failure damaged_entry(const Entry& entry, const std::string& cause) {
    return {ExitCode::refused, entry.name + cause, "tessera package check-zip    (reports which entries are damaged)"};
}

bool is_header_of(const zip_local_header& header, std::span<const uint8_t> rest, const Entry& entry) {
    const zip_entry_fields& fields = header.fields;
    const std::string_view name(reinterpret_cast<const char*>(rest.data()), fields.name_length);
    zip_extent extent{fields.size, fields.packed_size, entry.position};
    const bool has_sizes = (fields.flags & zip_flag_sizes_follow) == 0;
    if (header.signature != zip_local_signature || name != entry.name || fields.method != entry.method ||
        ((fields.flags ^ entry.flags) & zip_flag_encrypted) != 0 ||
        !zip_complete_extent(rest.subspan(name.size()), &extent)) {
        return false;
    }
    return !has_sizes ||
           (fields.crc == entry.crc && extent.size == entry.size && extent.packed_size == entry.packed_size);
}

size_t FileSource::read(std::span<uint8_t> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = pread(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset_));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw Failure(ExitCode::failed, "cannot read " + name_ + because(errno));
        }
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(got);
        offset_ += static_cast<uint64_t>(got);
    }
    return done;
}

size_t MemorySource::read(std::span<uint8_t> bytes) {
    const size_t size = std::min(bytes.size(), bytes_.size());
    std::copy_n(bytes_.begin(), size, bytes.begin());
    bytes_ = bytes_.subspan(size);
    return size;
}

EntryReader::Inflater::Inflater() {
    if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) {
        throw std::bad_alloc();
    }
}

EntryReader::Inflater::~Inflater() {
    inflateEnd(&stream);
}

EntryReader::EntryReader(const Entry& entry, ByteSource& source)
    : entry_(entry), source_(source), packed_left_(entry.packed_size), left_(entry.size) {
    if ((entry.flags & zip_flag_encrypted) != 0 || (entry.method != zip_stored && entry.method != zip_deflated)) {
        throw damaged_entry(entry, " cannot be unpacked: it is neither stored nor deflated");
    }
    if (entry.method == zip_stored && packed_left_ != left_) {
        throw damaged_entry(entry, " cannot be unpacked: it is stored with two different sizes");
    }
    if (entry.method == zip_deflated) {
        inflater_ = std::make_unique<Inflater>();
        input_.resize(std::min<uint64_t>(input_size, packed_left_));
    }
}

size_t EntryReader::refill() {
    const size_t wanted = std::min<uint64_t>(input_.size(), packed_left_);
    const size_t got = source_.read(std::span(input_).first(wanted));
    packed_left_ -= got;
    inflater_->stream.next_in = input_.data();
    inflater_->stream.avail_in = static_cast<uInt>(got);
    return got;
}

/** Fills `bytes`, or throws. */
void EntryReader::unpack(std::span<uint8_t> bytes) {
    if (inflater_ == nullptr) {
        const size_t got = source_.read(bytes);
        packed_left_ -= got;
        if (got < bytes.size()) {
            throw damaged_entry(entry_, " is truncated");
        }
        return;
    }
    z_stream& stream = inflater_->stream;
    stream.next_out = bytes.data();
    stream.avail_out = static_cast<uInt>(bytes.size());
    while (stream.avail_out > 0) {
        if (has_ended_ || (stream.avail_in == 0 && refill() == 0)) {
            throw damaged_entry(entry_, " is truncated");
        }
        const int result = inflate(&stream, Z_NO_FLUSH);
        has_ended_ = result == Z_STREAM_END;
        if (result != Z_OK && !has_ended_) {
            throw damaged_entry(entry_, " cannot be unpacked");
        }
    }
}

/** What remains of the stream may only be its end, and nothing may follow that. */
void EntryReader::check_end() {
    uint8_t extra = 0;
    while (inflater_ != nullptr && !has_ended_) {
        z_stream& stream = inflater_->stream;
        stream.next_out = &extra;
        stream.avail_out = 1;
        if (stream.avail_in == 0 && refill() == 0) {
            throw damaged_entry(entry_, " is truncated");
        }
        const int result = inflate(&stream, Z_NO_FLUSH);
        has_ended_ = result == Z_STREAM_END;
        if (stream.avail_out == 0 || (result != Z_OK && !has_ended_)) {
            throw damaged_entry(entry_, " cannot be unpacked: it does not end with its last byte");
        }
    }
    if (packed_left_ > 0 || (inflater_ != nullptr && inflater_->stream.avail_in > 0)) {
        throw damaged_entry(entry_, " cannot be unpacked: it does not end with its last byte");
    }
    if (crc_ != entry_.crc) {
        throw damaged_entry(entry_, ": checksum mismatch");
    }
}

size_t EntryReader::read(std::span<uint8_t> bytes) {
    bytes = bytes.first(std::min<uint64_t>(bytes.size(), left_));
    if (!bytes.empty()) {
        unpack(bytes);
        crc_ = libdeflate_crc32(crc_, bytes.data(), bytes.size());
        left_ -= bytes.size();
    }
    if (left_ == 0) {
        check_end();
    }
    return bytes.size();
}

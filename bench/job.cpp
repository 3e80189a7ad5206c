// SPDX-License-Identifier: Apache-2.0
/**
 * One job of the library as a whole process, for comparison with a command that does the same:
 *
 *   bench_job digest FILE             MD5Dev
 *   bench_job copy FROM TO            ota_file_to_file, the whole of FROM
 *   bench_job stream PKG ENTRY TO     vx_uncompress_file_to; to NAND if the name contains "mtd"
 *   bench_job floor PKG ENTRY TO      the minimum cost of streaming: zlib's inflate (a plain read for
 *                                     a stored entry) and a plain write of the same bytes in one loop
 *   bench_job checked PKG ENTRY TO    the same with zlib's crc32 over the bytes, as every reader of
 *                                     packages computes it
 *   bench_job unpack PKG DIR          vx_uncompress
 *   bench_job size PKG                vx_get_zip_size
 *
 * Partitions are plain files here: OTA_RAW is plain access, to a file as to a block node. NAND is the
 * device simulator's, loaded into the process.
 */

#include "md5.h"
#include "minizip_owner.h"
#include "ota_partition.h"
#include "vx_zip.h"

#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

ota_file_info_t partition(const char* path) {
    ota_file_info_t info{};
    info.medium = std::strstr(path, "mtd") != nullptr ? OTA_NAND : OTA_RAW;
    (void)std::snprintf(info.path, sizeof info.path, "%s", path);
    return info;
}

bool digest(char** args) {
    md5_byte_t bytes[16];
    if (MD5Dev(args[0], bytes, 0) != 0) {
        return false;
    }
    for (const md5_byte_t byte : bytes) {
        std::printf("%02x", byte);
    }
    std::printf("  %s\n", args[0]);
    return true;
}

bool copy(char** args) {
    ota_file_info_t from = partition(args[0]);
    ota_file_info_t to = partition(args[1]);
    from.size = static_cast<uint64_t>(get_file_size(args[0]));
    return ota_file_to_file(&from, &to, nullptr) == 0 && to.offset == from.size;
}

bool stream(char** args) {
    ota_file_info_t to = partition(args[2]);
    return vx_uncompress_file_to(args[0], args[1], &to, nullptr) == 0;
}

/** Where the bytes of an entry are in its package. */
struct entry_place {
    off_t offset;
    size_t packed;
    uLong crc;
    bool deflated;
};

bool find_entry(const char* package, const char* name, entry_place& place) {
    const ota_package uf(unzOpen64(package));
    unz_file_info64 info;
    int method = 0;
    if (uf == nullptr || unzLocateFile(uf.get(), name, 0) != UNZ_OK ||
        unzGetCurrentFileInfo64(uf.get(), &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK ||
        unzOpenCurrentFile2(uf.get(), &method, nullptr, 1) != UNZ_OK) {
        return false;
    }
    place.offset = static_cast<off_t>(unzGetCurrentFileZStreamPos64(uf.get()));
    place.packed = info.compressed_size;
    place.crc = info.crc;
    place.deflated = method == Z_DEFLATED;
    return true;
}

/** The floor reads and writes in pieces that fit in the processor's cache, the fastest size here. */
constexpr size_t floor_piece = size_t{256} << 10;

/** Where the bytes go, and whether they pass through zlib's crc32 on the way. */
struct sink {
    int fd;
    bool checked;
    uLong crc;

    bool take(const unsigned char* data, size_t size) {
        crc = checked ? crc32(crc, data, static_cast<uInt>(size)) : crc;
        return write(fd, data, size) == static_cast<ssize_t>(size);
    }
};

bool copy_stored(int from, sink& to, size_t left) {
    std::vector<unsigned char> piece(floor_piece);
    while (left > 0) {
        const ssize_t count = read(from, piece.data(), std::min(left, piece.size()));
        if (count <= 0 || !to.take(piece.data(), static_cast<size_t>(count))) {
            return false;
        }
        left -= static_cast<size_t>(count);
    }
    return true;
}

bool inflate_deflated(int from, sink& to, size_t left) {
    std::vector<unsigned char> in(floor_piece);
    std::vector<unsigned char> out(floor_piece);
    z_stream zs{};
    if (inflateInit2(&zs, -MAX_WBITS) != Z_OK) {
        return false;
    }
    int state = Z_OK;
    while (state == Z_OK) {
        if (zs.avail_in == 0 && left > 0) {
            const ssize_t count = read(from, in.data(), std::min(left, in.size()));
            if (count <= 0) {
                break;
            }
            left -= static_cast<size_t>(count);
            zs.next_in = in.data();
            zs.avail_in = static_cast<uInt>(count);
        }
        zs.next_out = out.data();
        zs.avail_out = static_cast<uInt>(out.size());
        state = inflate(&zs, Z_SYNC_FLUSH);
        if (!to.take(out.data(), out.size() - zs.avail_out)) {
            break;
        }
    }
    (void)inflateEnd(&zs);
    return state == Z_STREAM_END;
}

bool move_entry(char** args, bool checked) {
    entry_place place{};
    if (!find_entry(args[0], args[1], place)) {
        return false;
    }
    const ota_descriptor from(open(args[0], O_RDONLY));
    const ota_descriptor node(open(args[2], O_WRONLY));
    sink to{node.get(), checked, crc32(0, nullptr, 0)};
    if (lseek(from.get(), place.offset, SEEK_SET) < 0 || !node.is_open()) {
        return false;
    }
    const bool moved =
        place.deflated ? inflate_deflated(from.get(), to, place.packed) : copy_stored(from.get(), to, place.packed);
    return moved && (!checked || to.crc == place.crc);
}

bool floor_of_streaming(char** args) {
    return move_entry(args, false);
}

bool checked_floor(char** args) {
    return move_entry(args, true);
}

bool unpack(char** args) {
    return vx_uncompress(args[0], args[1]) == 0;
}

bool size(char** args) {
    uint64_t images = 0;
    const int64_t total = vx_get_zip_size(args[0], &images);
    std::printf("%" PRId64 " bytes, of them %" PRIu64 " in images\n", total, images);
    return total >= 0;
}

struct job {
    const char* name;
    int args;
    bool (*run)(char** args);
};

constexpr job jobs[] = {
    {"digest", 1, digest},         {"copy", 2, copy},     {"stream", 3, stream}, {"floor", 3, floor_of_streaming},
    {"checked", 3, checked_floor}, {"unpack", 2, unpack}, {"size", 1, size},
};

} // namespace

int main(int argc, char** argv) {
    for (const job& known : jobs) {
        if (argc == known.args + 2 && std::strcmp(argv[1], known.name) == 0) {
            return known.run(argv + 2) ? 0 : 1;
        }
    }
    (void)std::fprintf(stderr, "bench_job: unknown job\n");
    return 2;
}

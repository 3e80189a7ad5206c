// SPDX-License-Identifier: Apache-2.0
/** The MD5 message digest of RFC 1321 over memory, files and devices. */
#include "md5.h"

#include "device_request.h"
#include "ota_owner.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(md5_word_t) == 4 && sizeof(md5_state_t) == 88);
static_assert(offsetof(md5_state_t, abcd) == 8 && offsetof(md5_state_t, buf) == 24);

unsigned char buffer_md5file[1048576];
unsigned char buffer_md5dev[1048576];

namespace {

constexpr size_t block_size = 64;
constexpr size_t length_offset = 56; /* of the message length in the last block */

/** A word from four bytes, low byte first, whatever the host's order and the data's alignment. */
md5_word_t load_word(const md5_byte_t* p) {
    return md5_word_t{p[0]} | md5_word_t{p[1]} << 8 | md5_word_t{p[2]} << 16 | md5_word_t{p[3]} << 24;
}

void store_word(md5_byte_t* p, md5_word_t word) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<md5_byte_t>(word >> (8 * i));
    }
}

/**
 * Makes the compiler compute a value on its own, separately from the expression that uses it. The
 * operations of a message form one dependency chain. Only this keeps compilers from moving additions into
 * the chain that could be done ahead of it, which costs up to a fifth of the speed, depending on compiler
 * and options.
 */
inline md5_word_t ahead(md5_word_t value) {
    __asm__("" : "+r"(value));
    return value;
}

/*
 * One operation of each round: a = b + ((a + f(b, c, d) + x + t) <<< s). Only the rest of f
 * waits for b, which the previous operation has just computed: two steps in rounds 1 and 4, one in 2 and
 * 3. In G the two halves have no bit in common, so a sum works as well as an OR and can be split.
 */

inline void round_f(md5_word_t& a, md5_word_t b, md5_word_t c, md5_word_t d, md5_word_t x, int s, md5_word_t t) {
    a = b + std::rotl(ahead(a + x + t) + (d ^ (b & (c ^ d))), s);
}

inline void round_g(md5_word_t& a, md5_word_t b, md5_word_t c, md5_word_t d, md5_word_t x, int s, md5_word_t t) {
    a = b + std::rotl(ahead(a + x + t + (c & ~d)) + (b & d), s);
}

inline void round_h(md5_word_t& a, md5_word_t b, md5_word_t c, md5_word_t d, md5_word_t x, int s, md5_word_t t) {
    a = b + std::rotl(ahead(a + x + t) + (b ^ (c ^ d)), s);
}

inline void round_i(md5_word_t& a, md5_word_t b, md5_word_t c, md5_word_t d, md5_word_t x, int s, md5_word_t t) {
    a = b + std::rotl(ahead(a + x + t) + (c ^ (b | ahead(~d))), s);
}

/** Runs one block of 64 bytes. The 64 operations and constants are those of RFC 1321, section 3.4. */
inline void md5_process(md5_state_t* pms, const md5_byte_t* data) {
    md5_word_t x[16];
    for (size_t i = 0; i < 16; ++i) {
        x[i] = load_word(data + 4 * i);
    }
    md5_word_t a = pms->abcd[0];
    md5_word_t b = pms->abcd[1];
    md5_word_t c = pms->abcd[2];
    md5_word_t d = pms->abcd[3];

    round_f(a, b, c, d, x[0], 7, 0xd76aa478);
    round_f(d, a, b, c, x[1], 12, 0xe8c7b756);
    round_f(c, d, a, b, x[2], 17, 0x242070db);
    round_f(b, c, d, a, x[3], 22, 0xc1bdceee);
    round_f(a, b, c, d, x[4], 7, 0xf57c0faf);
    round_f(d, a, b, c, x[5], 12, 0x4787c62a);
    round_f(c, d, a, b, x[6], 17, 0xa8304613);
    round_f(b, c, d, a, x[7], 22, 0xfd469501);
    round_f(a, b, c, d, x[8], 7, 0x698098d8);
    round_f(d, a, b, c, x[9], 12, 0x8b44f7af);
    round_f(c, d, a, b, x[10], 17, 0xffff5bb1);
    round_f(b, c, d, a, x[11], 22, 0x895cd7be);
    round_f(a, b, c, d, x[12], 7, 0x6b901122);
    round_f(d, a, b, c, x[13], 12, 0xfd987193);
    round_f(c, d, a, b, x[14], 17, 0xa679438e);
    round_f(b, c, d, a, x[15], 22, 0x49b40821);

    round_g(a, b, c, d, x[1], 5, 0xf61e2562);
    round_g(d, a, b, c, x[6], 9, 0xc040b340);
    round_g(c, d, a, b, x[11], 14, 0x265e5a51);
    round_g(b, c, d, a, x[0], 20, 0xe9b6c7aa);
    round_g(a, b, c, d, x[5], 5, 0xd62f105d);
    round_g(d, a, b, c, x[10], 9, 0x02441453);
    round_g(c, d, a, b, x[15], 14, 0xd8a1e681);
    round_g(b, c, d, a, x[4], 20, 0xe7d3fbc8);
    round_g(a, b, c, d, x[9], 5, 0x21e1cde6);
    round_g(d, a, b, c, x[14], 9, 0xc33707d6);
    round_g(c, d, a, b, x[3], 14, 0xf4d50d87);
    round_g(b, c, d, a, x[8], 20, 0x455a14ed);
    round_g(a, b, c, d, x[13], 5, 0xa9e3e905);
    round_g(d, a, b, c, x[2], 9, 0xfcefa3f8);
    round_g(c, d, a, b, x[7], 14, 0x676f02d9);
    round_g(b, c, d, a, x[12], 20, 0x8d2a4c8a);

    round_h(a, b, c, d, x[5], 4, 0xfffa3942);
    round_h(d, a, b, c, x[8], 11, 0x8771f681);
    round_h(c, d, a, b, x[11], 16, 0x6d9d6122);
    round_h(b, c, d, a, x[14], 23, 0xfde5380c);
    round_h(a, b, c, d, x[1], 4, 0xa4beea44);
    round_h(d, a, b, c, x[4], 11, 0x4bdecfa9);
    round_h(c, d, a, b, x[7], 16, 0xf6bb4b60);
    round_h(b, c, d, a, x[10], 23, 0xbebfbc70);
    round_h(a, b, c, d, x[13], 4, 0x289b7ec6);
    round_h(d, a, b, c, x[0], 11, 0xeaa127fa);
    round_h(c, d, a, b, x[3], 16, 0xd4ef3085);
    round_h(b, c, d, a, x[6], 23, 0x04881d05);
    round_h(a, b, c, d, x[9], 4, 0xd9d4d039);
    round_h(d, a, b, c, x[12], 11, 0xe6db99e5);
    round_h(c, d, a, b, x[15], 16, 0x1fa27cf8);
    round_h(b, c, d, a, x[2], 23, 0xc4ac5665);

    round_i(a, b, c, d, x[0], 6, 0xf4292244);
    round_i(d, a, b, c, x[7], 10, 0x432aff97);
    round_i(c, d, a, b, x[14], 15, 0xab9423a7);
    round_i(b, c, d, a, x[5], 21, 0xfc93a039);
    round_i(a, b, c, d, x[12], 6, 0x655b59c3);
    round_i(d, a, b, c, x[3], 10, 0x8f0ccc92);
    round_i(c, d, a, b, x[10], 15, 0xffeff47d);
    round_i(b, c, d, a, x[1], 21, 0x85845dd1);
    round_i(a, b, c, d, x[8], 6, 0x6fa87e4f);
    round_i(d, a, b, c, x[15], 10, 0xfe2ce6e0);
    round_i(c, d, a, b, x[6], 15, 0xa3014314);
    round_i(b, c, d, a, x[13], 21, 0x4e0811a1);
    round_i(a, b, c, d, x[4], 6, 0xf7537e82);
    round_i(d, a, b, c, x[11], 10, 0xbd3af235);
    round_i(c, d, a, b, x[2], 15, 0x2ad7d2bb);
    round_i(b, c, d, a, x[9], 21, 0xeb86d391);

    pms->abcd[0] += a;
    pms->abcd[1] += b;
    pms->abcd[2] += c;
    pms->abcd[3] += d;
}

/**
 * Runs `count` whole blocks. The chaining words stay in registers from one block to the next. Not inlined,
 * because the callers' own values would compete for the registers.
 */
[[gnu::noinline]] void md5_process_blocks(md5_state_t* pms, const md5_byte_t* data, size_t count) {
    md5_state_t state;
    std::memcpy(state.abcd, pms->abcd, sizeof state.abcd);
    for (; count > 0; data += block_size, --count) {
        md5_process(&state, data);
    }
    std::memcpy(pms->abcd, state.abcd, sizeof state.abcd);
}

/** Number of bytes in the block that is not yet full. */
size_t pending_bytes(const md5_state_t* pms) {
    return (pms->count[0] >> 3) % block_size;
}

void count_bits(md5_state_t* pms, size_t bytes) {
    const auto low = static_cast<md5_word_t>(bytes << 3);
    pms->count[0] += low;
    pms->count[1] += static_cast<md5_word_t>(bytes >> 29) + (pms->count[0] < low ? 1 : 0);
}

void append_chunk(md5_state_t* pms, off_t bytes) {
    md5_append(pms, buffer_md5dev, static_cast<int>(bytes));
}

/**
 * The size of the file or device that `fd` refers to. fstat() reports none for a device node, so each kind
 * of device is asked with its own request. Negative when a device does not report a size.
 */
off_t target_size(int fd, const struct stat& status) {
    uint64_t bytes = 0;
    if (S_ISBLK(status.st_mode)) {
        return block_get_size(fd, &bytes) == 0 && bytes > 0 ? static_cast<off_t>(bytes) : -1;
    }
    if (!S_ISCHR(status.st_mode)) {
        return status.st_size;
    }
    mtd_geometry mtd{};
    if (mtd_get_geometry(fd, &mtd) == 0) {
        return mtd.size > 0 ? static_cast<off_t>(mtd.size) : -1;
    }
    ubi_geometry volume{};
    return ubi_get_geometry(fd, &volume) == 0 && volume.used_size > 0 ? volume.used_size : -1;
}

} // namespace

void md5_init(md5_state_t* pms) {
    pms->count[0] = pms->count[1] = 0;
    pms->abcd[0] = 0x67452301;
    pms->abcd[1] = 0xefcdab89;
    pms->abcd[2] = 0x98badcfe;
    pms->abcd[3] = 0x10325476;
}

void md5_append(md5_state_t* pms, const md5_byte_t* data, int nbytes) {
    if (nbytes <= 0) {
        return;
    }
    auto left = static_cast<size_t>(nbytes);
    const size_t pending = pending_bytes(pms);
    count_bits(pms, left);
    if (pending > 0) {
        const size_t copy = std::min(left, block_size - pending);
        std::memcpy(pms->buf + pending, data, copy);
        if (pending + copy < block_size) {
            return;
        }
        md5_process_blocks(pms, pms->buf, 1);
        data += copy;
        left -= copy;
    }
    md5_process_blocks(pms, data, left / block_size);
    const size_t rest = left % block_size;
    std::memcpy(pms->buf, data + left - rest, rest);
}

void md5_finish(md5_state_t* pms, md5_byte_t* digest) {
    const size_t pending = pending_bytes(pms);
    md5_byte_t* const buf = pms->buf;
    std::memset(buf + pending, 0, block_size - pending);
    buf[pending] = 0x80;
    if (pending >= length_offset) {
        md5_process_blocks(pms, buf, 1);
        std::memset(buf, 0, block_size);
    }
    store_word(buf + length_offset, pms->count[0]);
    store_word(buf + length_offset + 4, pms->count[1]);
    md5_process_blocks(pms, buf, 1);
    for (size_t i = 0; i < 4; ++i) {
        store_word(digest + 4 * i, pms->abcd[i]);
    }
}

int MD5File(const char* filename, md5_byte_t* digest) {
    if (filename == nullptr || digest == nullptr) {
        return -1;
    }
    const ota_stream file(std::fopen(filename, "rb"));
    if (file == nullptr) {
        return -1;
    }
    md5_state_t state;
    md5_init(&state);
    while (const size_t count = std::fread(buffer_md5file, 1, sizeof buffer_md5file, file.get())) {
        md5_append(&state, buffer_md5file, static_cast<int>(count));
    }
    md5_finish(&state, digest);
    return 0;
}

int MD5Dev(const char* filename, md5_byte_t* digest, int32_t garbage) {
    if (filename == nullptr || digest == nullptr) {
        return -1;
    }
    const ota_descriptor fd(open(filename, O_RDONLY));
    struct stat status {};
    if (!fd.is_open() || fstat(fd.get(), &status) != 0) {
        return -1;
    }
    const off_t size = target_size(fd.get(), status);
    if (size < 0) {
        return -1;
    }
    off_t size_unread = size - garbage;
    off_t device_left = std::min(size, size_unread); /* a negative garbage asks for more than there is */
    md5_state_t state;
    md5_init(&state);
    while (size_unread > 0) {
        const ssize_t count = read(fd.get(), buffer_md5dev, sizeof buffer_md5dev);
        if (count <= 0) {
            break;
        }
        const off_t wanted = std::min<off_t>(count, size_unread);
        append_chunk(&state, wanted);
        size_unread -= wanted;
        device_left -= wanted;
    }
    if (device_left > 0 && (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode))) {
        return -1;
    }
    md5_finish(&state, digest);
    return 0;
}

int MD5DevPart(const char* filename, long int offset, long int checklen, md5_byte_t* digest) {
    if (filename == nullptr || digest == nullptr) {
        return -1;
    }
    const ota_descriptor fd(open(filename, O_RDONLY));
    if (!fd.is_open()) {
        return -1;
    }
    md5_state_t state;
    md5_init(&state);
    (void)lseek(fd.get(), offset, SEEK_SET);
    off_t total_len = 0;
    while (true) {
        const ssize_t count = read(fd.get(), buffer_md5dev, sizeof buffer_md5dev);
        if (count <= 0) {
            break;
        }
        total_len += count;
        if (total_len > checklen) {
            append_chunk(&state, std::max<off_t>(count + checklen - total_len, 0));
            break;
        }
        append_chunk(&state, count);
    }
    md5_finish(&state, digest);
    return 0;
}
